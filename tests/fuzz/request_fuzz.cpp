// Requests through on_recv, in chunks.
//
// Input: a byte of flags, four chunk sizes, and the bytes. Rules: for these chunks, a connection does what
// the model of the unit tests does; and one request means the same however it is cut.

#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/noted_connection.h"
#include "tests/http/request_model.h"

using fuzz::expect;
using fuzz::expect_equal;

namespace {

enum flags {
  no_websocket = 1,   // as on a proxy's connection
  short_limit = 2,    // a request length that a small input can exceed
  stays_upgraded = 4  // frames are read after an upgrade
};

constexpr int short_length = 48;

void compare_with_model(int flags, const std::vector<std::string>& chunks) {
  fuzz::in_place<noted_connection> c;
  request_model model;
  c->websocket_enabled = model.websocket_enabled = !(flags & no_websocket);
  if (flags & short_limit) model.max_request_length = c->max_request_length = short_length;
  for (const std::string& chunk : chunks) {
    fuzz::deliver(*c, chunk);
    model.receive(chunk);
    expect(c->headers_received == model.headers_received, "headers_received is the model's");
    expect(c->content_length == model.content_length, "content_length is the model's");
    expect(c->content_received == model.content_received, "content_received is the model's");
    expect(c->request_length == model.request_length, "request_length is the model's");
    expect(c->max_request_length == model.max_request_length, "max_request_length is the model's");
    expect(c->keep_alive == model.keep_alive, "keep_alive is the model's");
    expect(c->upgraded == model.upgraded, "upgraded is the model's");
    expect_equal(c->head, model.head, "head is the model's");
    expect_equal(c->content, model.content, "content is the model's");
    expect_equal(c->fields(), noted_fields(model), "the fields of the request are the model's");
  }
  expect(c->events == model.events, "the hooks run as the model says");
}

struct outcome {
  std::string calls;  // of all hooks except on_data
  std::string body;   // everything that on_data got
  bool operator==(const outcome& other) const { return calls == other.calls && body == other.body; }
};

// Delivers chunks until the first request is complete, and sets `used` to the number of bytes delivered.
template <int Number>
outcome first_request(int flags, const std::vector<std::string>& chunks, size_t& used) {
  fuzz::in_place<noted_connection, Number> c;
  c->websocket_enabled = !(flags & no_websocket);
  c->stays_upgraded = (flags & stays_upgraded) != 0;
  used = 0;
  for (const std::string& chunk : chunks) {
    fuzz::deliver(*c, chunk);
    used += chunk.size();
    if (c->is_request_complete) break;
  }
  outcome result;
  for (const std::string& event : c->events) {
    if (event.compare(0, 5, "data ") == 0)
      result.body += event.substr(5);
    else
      result.calls += event + "\n";
  }
  result.calls += c->at_headers + c->at_request;
  return result;
}

// Requests are not pipelined: bytes after a request in the same chunk belong to it. If the input comes byte
// by byte, no bytes follow in a chunk. So this finds the request's own bytes. They are then delivered in one
// piece and in the input's chunks.
void compare_cuts(int flags, const fuzz::cutter& cutter, const std::string& bytes) {
  size_t length = 0;
  const outcome expected = first_request<1>(flags, fuzz::byte_by_byte(bytes), length);
  const std::string request = bytes.substr(0, length);
  size_t used = 0;
  const outcome whole = first_request<2>(flags, {request}, used);
  expect_equal(whole.calls, expected.calls, "a request in one piece runs the hooks that its bytes run");
  expect_equal(whole.body, expected.body, "a request in one piece has the body that its bytes have");
  const outcome cut = first_request<2>(flags, cutter.cut(request), used);
  expect_equal(cut.calls, expected.calls, "a request in chunks runs the hooks that its bytes run");
  expect_equal(cut.body, expected.body, "a request in chunks has the body that its bytes have");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  const int flags = in.byte();
  const fuzz::cutter cutter(in);
  const std::string bytes = in.rest();
  compare_with_model(flags, cutter.cut(bytes));
  compare_cuts(flags, cutter, bytes);
  return 0;
}

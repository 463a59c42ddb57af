// Bodies in chunks between real peers: what arrives, and how it ends.

#include "tests/proxy/proxy_fixtures.h"

namespace {

const std::string chunked = "Transfer-Encoding: chunked\r\n";

std::string chunk_of(const std::string& bytes) {
  char size[20];
  snprintf(size, sizeof(size), "%zx\r\n", bytes.size());
  return size + bytes + "\r\n";
}

struct chunked_relay_test : proxy_server<reverse_proxy> {
  listener second_upstream;

  chunked_relay_test() {
    map("a", upstream.port());
    map("b", second_upstream.port());
  }

  // A client whose head has reached the upstream; the body is to come.
  struct exchange {
    client from;
    client to;
  };

  exchange start_exchange(const std::string& lines = chunked) {
    client from = connect();
    from.send(request_to("a", "/", lines));
    client to = accept();
    expect_bytes(to, forwarded("a", "/", lines));
    return {std::move(from), std::move(to)};
  }

  // Sends the bytes to the upstream, piece by piece, each of which has to arrive.
  void send_body(exchange& x, const std::vector<std::string>& pieces) {
    for (const std::string& piece : pieces) {
      send_all(x.from, piece);
      expect_bytes(x.to, piece);
    }
  }

  // Expects the 404 for a request to an unknown host. It shows that the request before is complete.
  void expect_next_request_is_answered(client& c) {
    c.send(request_to("unknown"));
    expect_bytes(c, not_found);
  }
};

}  // namespace

TEST_F(chunked_relay_test, each_request_gets_its_own_response) {
  exchange x = start_exchange();
  for (int round = 0; round < 3; round++) {
    send_body(x, {"5\r\nhel", "lo\r\n", "0\r\n", "\r\n"});
    x.to.send("reply");
    expect_bytes(x.from, "reply");
    expect_next_request_is_answered(x.from);
    x.from.send(request_to("a", "/", chunked));
    expect_bytes(x.to, forwarded("a", "/", chunked));
  }
}

TEST_F(chunked_relay_test, chunk_larger_than_the_output_buffer_arrives_whole) {
  const std::string body = chunk_of(random_bytes(3 * connection::out_capacity + 17)) + "0\r\n\r\n";
  exchange x = start_exchange();
  send_body(x, {body});
  expect_next_request_is_answered(x.from);
}

TEST_F(chunked_relay_test, bytes_arrive_in_order_however_few_are_moved_at_a_time) {
  const std::string body = chunk_of(random_bytes(300)) + "0\r\nSum: 1\r\n\r\n";
  exchange x = start_exchange();
  faults::most_bytes() = 1;
  send_body(x, {body});
  faults::most_bytes() = 0;
  expect_next_request_is_answered(x.from);
}

TEST_F(chunked_relay_test, next_request_may_go_to_another_upstream) {
  exchange x = start_exchange();
  send_body(x, {chunk_of("hello"), "0\r\n\r\n"});
  x.to.send("reply");
  expect_bytes(x.from, "reply");
  x.from.send(request_to("b", "/second"));
  client second = accept(second_upstream);
  expect_bytes(second, forwarded("b", "/second"));
  expect_end(x.to);
}

TEST_F(chunked_relay_test, client_that_waits_for_a_go_ahead_gets_it_from_the_upstream) {
  exchange x = start_exchange(chunked + "Expect: 100-continue\r\n");
  x.to.send("HTTP/1.1 100 Continue\r\n\r\n");
  expect_bytes(x.from, "HTTP/1.1 100 Continue\r\n\r\n");
  send_body(x, {chunk_of("hello"), "0\r\n\r\n"});
  x.to.send("HTTP/1.1 204 No Content\r\n\r\n");
  expect_bytes(x.from, "HTTP/1.1 204 No Content\r\n\r\n");
  expect_next_request_is_answered(x.from);
}

TEST_F(chunked_relay_test, response_before_the_end_of_the_body_leaves_both_complete) {
  exchange x = start_exchange();
  send_body(x, {"5\r\nhe"});
  x.to.send("early");
  expect_bytes(x.from, "early");
  send_body(x, {"llo\r\n", "0\r\n\r\n"});
  x.to.send("late");
  expect_bytes(x.from, "late");
  expect_next_request_is_answered(x.from);
}

TEST_F(chunked_relay_test, upstream_that_closes_in_the_middle_gives_the_client_what_it_sent_and_the_end) {
  for (const char* answer : {"", "HTTP/1.1 413 Payload Too Large\r\n\r\n"}) {
    exchange x = start_exchange();
    send_body(x, {"5\r\nhe"});
    x.to.send(answer);
    x.to.close();
    expect_end(x.from, answer);
  }
}

TEST_F(chunked_relay_test, client_that_vanishes_in_the_middle_leaves_the_upstream_what_it_sent) {
  const std::string part = "300000\r\n" + random_bytes(2 * connection::out_capacity, 4);
  exchange x = start_exchange();
  send_all(x.from, part);
  x.from.close();
  expect_end(x.to, part);
}

TEST_F(chunked_relay_test, chunks_for_an_unknown_host_reach_nobody) {
  exchange x = start_exchange();
  send_body(x, {"0\r\n\r\n"});
  x.from.send(request_to("unknown", "/", chunked));
  expect_bytes(x.from, not_found);
  send_all(x.from, chunk_of(request_to("a", "/smuggled")));
  expect_nothing(x.to);
  expect_nothing(x.from);
  send_all(x.from, "0\r\n\r\n");
  EXPECT_TRUE(serve_until([&] { return !served(x.from).headers_received; }));
  x.from.send(request_to("a", "/next"));
  expect_bytes(x.to, forwarded("a", "/next"));
}

TEST_F(chunked_relay_test, client_in_the_middle_of_chunks_that_nobody_takes_is_timed_out_as_usual) {
  client c = connect();
  c.send(request_to("unknown", "/", chunked, "5\r\nhe"));
  expect_bytes(c, not_found);
  faults::clock_offset() = 12;
  expect_end(c);
}

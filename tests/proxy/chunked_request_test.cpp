// Requests with a body in chunks, by hand: what is relayed, and when the request is complete. No byte of a
// body is ever taken for a request.

#include <algorithm>

#include "tests/proxy/proxy_fixtures.h"

namespace {

const std::string ip = "10.0.0.7";
const std::string chunked = "Transfer-Encoding: chunked\r\n";
const std::string chunks = "5\r\nhello\r\n1;a=b\r\n!\r\n0\r\nSum: 7\r\n\r\n";
const std::string small_body = "3\r\nabc\r\n0\r\n\r\n";

// Counts the complete requests.
template <class T>
struct counting : T {
  int complete = 0;
  void on_request() override {
    complete++;
    T::on_request();
  }
};

template <class T>
struct chunked_requests : proxy_object<counting<T>> {
  // Everything that has gone to the current upstream so far.
  void expect_upstream(const std::string& bytes) { EXPECT_EQ(this->to_upstream(), bytes); }

  void receive_each(const std::vector<std::string>& pieces) {
    for (const std::string& piece : pieces) this->receive(piece);
  }
};

// "on" is mapped to the upstream, "other" to another one, "echo" to the echo page.
struct chunked_request_test : chunked_requests<reverse_proxy> {
  listener second_upstream;

  chunked_request_test() {
    map("on", upstream.port());
    map("other", second_upstream.port());
    map("echo", -1);
  }

  static std::string post(const std::string& host, const std::string& body = "",
                          const std::string& lines = chunked) {
    return request_to(host, "/", lines, body);
  }
  static std::string posted(const std::string& host, const std::string& body = "",
                            const std::string& lines = chunked) {
    return forwarded(host, "/", lines, body, ip);
  }
  // The console lines so far, one for each request.
  int requests() {
    const std::string text = out.text();
    return static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  }
  void start_over() {
    proxy_object::start_over();
    out.clear();
  }
  // Expects that the next request is understood as one.
  void expect_next_request_is_answered() {
    const int before = requests();
    proxy->pipe->to_client.clear();
    receive(request_to("unknown"));
    EXPECT_EQ(to_client(), not_found);
    EXPECT_EQ(requests(), before + 1);
  }
  // Expects that the connection takes nothing that follows for a request.
  void expect_nothing_is_a_request() {
    const int complete = proxy->complete;
    const int before = requests();
    const std::string answered = to_client();
    receive_each(
        {"\r\n", request_to("unknown"), "0\r\n\r\n", request_to("unknown"), post("unknown", small_body)});
    EXPECT_EQ(to_client(), answered);
    EXPECT_EQ(requests(), before);
    EXPECT_EQ(proxy->complete, complete);
  }
};

struct chunked_forward_test : chunked_requests<http_proxy> {
  std::string place() { return "127.0.0.1:" + std::to_string(upstream.port()); }
};

struct blocking_proxy : http_proxy {
  bool should_block(const std::string& host) override { return host == "blocked"; }
};
using chunked_block_test = chunked_requests<blocking_proxy>;

}  // namespace

TEST_F(chunked_request_test, request_is_relayed_as_it_came_and_complete_at_its_end_however_it_is_cut) {
  const std::string request = post("on", chunks);
  for (size_t cut = 0; cut <= request.size(); cut++) {
    SCOPED_TRACE(cut);
    start_over();
    receive_each({request.substr(0, cut), request.substr(cut)});
    expect_upstream(posted("on", chunks));
    EXPECT_EQ(proxy->complete, 1);
    EXPECT_FALSE(proxy->headers_received);
    expect_next_request_is_answered();
  }
  start_over();
  for (int round = 1; round <= 3; round++) {
    for (char c : request) receive(std::string(1, c));
    EXPECT_EQ(proxy->complete, round);
  }
  expect_upstream(posted("on", chunks) + posted("on", chunks) + posted("on", chunks));
  EXPECT_EQ(requests(), 3);
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(chunked_request_test, request_is_open_until_the_last_byte_of_its_body) {
  for (size_t length = 0; length < chunks.size(); length++) {
    SCOPED_TRACE(length);
    start_over();
    receive(post("on", chunks.substr(0, length)));
    EXPECT_EQ(proxy->complete, 0);
    EXPECT_TRUE(proxy->headers_received);
  }
}

// Wherever a body is cut off, what follows is a part of it (perhaps of its trailer) or makes it malformed.
TEST_F(chunked_request_test, request_within_a_body_is_not_taken_for_one) {
  const std::string inner = request_to("echo");
  for (size_t length = 0; length < chunks.size(); length++) {
    for (const char* host : {"on", "unknown"}) {
      SCOPED_TRACE(length);
      start_over();
      receive_each({post(host, chunks.substr(0, length)), inner});
      EXPECT_EQ(requests(), 1);
      EXPECT_EQ(to_client(), *host == 'u' ? not_found : "");
      expect_upstream(*host == 'u' ? "" : posted(host, chunks.substr(0, length)) + inner);
    }
  }
}

TEST_F(chunked_request_test, what_comes_in_one_piece_after_the_end_belongs_to_the_request) {
  const std::string behind = request_to("other");
  receive(post("on", small_body + behind));
  expect_upstream(posted("on", small_body + behind));
  receive(post("on", "3\r\nab"));
  receive("c\r\n0\r\n\r\n" + behind);
  expect_upstream(posted("on", small_body + behind) + posted("on", small_body + behind));
  EXPECT_EQ(requests(), 2);
  EXPECT_EQ(proxy->complete, 2);
  expect_next_request_is_answered();
}

TEST_F(chunked_request_test, requests_of_both_kinds_follow_one_another) {
  std::string wanted;
  for (int round = 0; round < 3; round++) {
    receive_each({post("on"), "3\r\nabc", "\r\n0\r\nA:", " b\r\n\r\n"});
    wanted += posted("on", "3\r\nabc\r\n0\r\nA: b\r\n\r\n");
    receive_each({post("on", "", length_of("12345")), "12", "345"});
    wanted += posted("on", "12345", length_of("12345"));
    receive(request_to("on"));
    wanted += forwarded("on", "/", "", "", ip);
    expect_upstream(wanted);
    EXPECT_EQ(proxy->complete, 3 * (round + 1));
  }
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(chunked_request_test, hosts_are_routed_one_by_one) {
  receive_each({post("on"), small_body});
  expect_upstream(posted("on", small_body));
  receive_each({post("other"), small_body});
  expect_upstream(posted("other", small_body));
  EXPECT_EQ(upstreams(), 2);
}

TEST_F(chunked_request_test, codings_in_front_of_chunked_and_a_length_beside_it_do_not_matter) {
  for (const char* lines : {"transfer-ENCODING:gzip , Chunked\r\n",
                            "Transfer-Encoding: gzip\r\nX: y\r\nTransfer-Encoding: chunked\r\n",
                            "Content-Length: 0\r\nTransfer-Encoding: chunked\r\n",
                            "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n",
                            "Transfer-Encoding: chunked\r\nContent-Length: 2147483647\r\n",
                            // This name is mistaken for Content-Length.
                            "Content-Length-Hint: -5\r\nTransfer-Encoding: chunked\r\n"}) {
    SCOPED_TRACE(lines);
    start_over();
    receive(post("on", "", lines));
    for (char c : small_body) receive(std::string(1, c));
    expect_upstream(posted("on", small_body, lines));
    expect_next_request_is_answered();
  }
}

// The filter of the header lines does not see Transfer-Encoding there, but the upstream does.
TEST_F(chunked_request_test, transfer_encoding_after_a_line_of_one_byte_is_seen) {
  const std::string lines = "a\r\n" + chunked;
  receive_each({post("on", "", lines), small_body});
  expect_upstream(posted("on", small_body, lines));
  expect_next_request_is_answered();
}

TEST_F(chunked_request_test, request_without_a_known_end_is_the_last_one) {
  const std::string heads[] = {
      post("on", "", "Transfer-Encoding: chunked, identity\r\n"),
      post("on", "", "Transfer-Encoding: xchunked\r\n"),
      post("on", "", chunked + chunked),
      post("on", "", "Transfer-Encoding : chunked\r\n"),
      post("on", "", "X: y\r\n Transfer-Encoding: chunked\r\n"),
      post("on", "", "a\r\n\tTransfer-Encoding: chunked\r\n"),
      post("on", "", chunked + "Connection: x\r\n , identity\r\n"),
      "POST / HTTP/1.0\r\nHost: on\r\nConnection: Keep-Alive\r\n" + chunked + "\r\n"};
  for (const std::string& head : heads) {
    SCOPED_TRACE(head);
    start_over();
    receive(head);
    const std::string before = to_upstream();
    EXPECT_EQ(requests(), 1);
    receive(small_body);
    expect_upstream(before + small_body);
    EXPECT_EQ(proxy->complete, 0);
    expect_nothing_is_a_request();
    EXPECT_TRUE(proxy->keep_alive);  // this closes nothing
  }
}

TEST_F(chunked_request_test, malformed_body_has_no_end_and_goes_on_to_the_upstream) {
  for (const char* body :
       {"5\nhello\n0\n\n", "+5\r\nhello\r\n0\r\n\r\n", "0x5\r\nhello\r\n0\r\n\r\n",
        " 5\r\nhello\r\n0\r\n\r\n", "5 \r\nhello\r\n0\r\n\r\n", "5;\n\r\nhello\r\n0\r\n\r\n",
        "10000000000000005\r\nhello\r\n0\r\n\r\n", "5\r\nhello0\r\n\r\n", "0\r\n\n",
        "0\r\nGET / HTTP/1.1\r\n\r\n", "-0\r\n\r\n", "\r\n0\r\n\r\n"}) {
    SCOPED_TRACE(body);
    for (bool in_one_piece : {true, false}) {
      start_over();
      if (in_one_piece)
        receive(post("on", body));
      else
        receive_each({post("on"), body});
      expect_upstream(posted("on", body));
      EXPECT_EQ(proxy->complete, 0);
      expect_nothing_is_a_request();
    }
  }
}

TEST_F(chunked_request_test, bytes_after_a_malformed_body_all_go_on) {
  receive(post("on", "x"));
  std::string wanted = posted("on", "x");
  for (const std::string& piece : {request_to("echo"), std::string("0\r\n\r\n"), request_to("other")}) {
    receive(piece);
    wanted += piece;
    expect_upstream(wanted);
  }
}

TEST_F(chunked_request_test, chunks_of_a_request_that_is_answered_here_are_dropped) {
  for (const char* host : {"unknown", "echo"}) {
    start_over();
    const std::string request = post(host, chunks);
    for (size_t cut = 0; cut <= request.size(); cut++) {
      proxy->pipe->to_client.clear();
      out.clear();
      receive_each({request.substr(0, cut), request.substr(cut)});
      EXPECT_EQ(requests(), 1);
      expect_upstream("");
      expect_next_request_is_answered();
    }
    EXPECT_TRUE(is_idle());
  }
}

// The upstream of an earlier request would take the chunks for a request. The client would take the response
// to them for the response to its next request.
TEST_F(chunked_request_test,
       chunks_of_a_request_that_is_answered_here_do_not_reach_an_upstream_that_is_there) {
  receive(request_to("on"));
  const std::string first = forwarded("on", "/", "", "", ip);
  for (const char* host : {"unknown", "echo"}) {
    receive_each({post(host), "3\r\nab", "c\r\n0\r\n\r\n"});
    receive(post(host, small_body + "behind"));
    expect_upstream(first);
  }
  receive_each({post("on"), small_body});
  expect_upstream(first + posted("on", small_body));
  receive_each({post("unknown", "malformed"), request_to("on")});
  expect_upstream(first + posted("on", small_body));
}

TEST_F(chunked_request_test, chunks_after_a_refused_upstream_are_dropped_and_the_connection_closes) {
  map("dead", closed.port());
  receive_each({post("dead"), chunks, request_to("echo")});
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, bad_gateway);
  EXPECT_FALSE(o.stays_open);
  expect_upstream("");
  EXPECT_EQ(requests(), 1);
}

TEST_F(chunked_request_test, upstream_that_ends_in_the_middle_does_not_make_the_rest_of_the_body_a_request) {
  receive(post("on", "5\r\nhe"));
  deliver(upstream_side(), "early answer");
  end_upstream();
  receive("llo\r\n");
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, "early answer");
  EXPECT_FALSE(o.stays_open);
  receive("0\r\n\r\n");
  EXPECT_EQ(proxy->complete, 1);
  EXPECT_EQ(requests(), 1);
}

TEST_F(chunked_request_test, early_response_does_not_end_the_request) {
  receive(post("on", "5\r\nhe"));
  deliver(upstream_side(), "early answer");
  EXPECT_EQ(ask(*proxy).bytes, "early answer");
  receive_each({"llo\r\n", "0\r\n\r\n"});
  expect_upstream(posted("on", "5\r\nhello\r\n0\r\n\r\n"));
  expect_next_request_is_answered();
}

TEST_F(chunked_request_test, body_beyond_the_limit_is_dropped_with_a_warning_and_is_never_complete) {
  receive(post("on", "6400001\r\n"));
  proxy->request_length = 104857601;  // so many bytes were received: one more than the limit
  out.clear();
  receive(request_to("unknown"));
  receive("\r\n0\r\n\r\n");
  const std::string warning = "Warning! Request exceeds max length of 104857600.\n";
  EXPECT_EQ(out.text(), warning + warning);
  EXPECT_EQ(proxy->complete, 0);
  expect_upstream(posted("on", "6400001\r\n"));
}

// Without a limit the count of the body's bytes wraps. It passes the number that keeps a request open.
TEST_F(chunked_request_test, body_without_a_limit_is_complete_only_at_its_end) {
  const std::string body = "c\r\n0123456789ab\r\n0\r\n\r\n";
  for (size_t before = 0; before < body.size(); before++) {
    SCOPED_TRACE(before);
    start_over();
    receive(post("on"));
    proxy->max_request_length = 0;
    proxy->content_received = INT32_MAX - static_cast<int32_t>(before);
    for (size_t i = 0; i < body.size(); i++) {
      EXPECT_EQ(proxy->complete, 0);
      receive(body.substr(i, 1));
    }
    EXPECT_EQ(proxy->complete, 1);
    expect_upstream(posted("on", body));
    expect_next_request_is_answered();
  }
}

TEST_F(chunked_request_test, malformed_body_without_a_limit_is_never_complete) {
  receive(post("on", "x"));
  proxy->max_request_length = 0;
  proxy->content_received = INT32_MAX - 3;
  for (int i = 0; i < 10; i++) receive("y");
  EXPECT_EQ(proxy->complete, 0);
}

TEST_F(chunked_request_test, request_with_a_length_keeps_what_it_announces) {
  receive(post("on", "123", length_of("12345") + "Transfer-Encoding-Hint: chunked\r\n"));
  EXPECT_EQ(proxy->content_length, 5);
  EXPECT_EQ(proxy->content_received, 3);
  receive("45");
  EXPECT_EQ(proxy->complete, 1);
}

TEST_F(chunked_request_test, upgrade_without_chunks_is_as_before) {
  receive(request_to("on", "/chat", "Upgrade: websocket\r\n"));
  EXPECT_EQ(proxy->complete, 1);
  EXPECT_FALSE(proxy->headers_received);
}

TEST_F(chunked_request_test, chunks_for_an_upstream_without_a_server_are_queued) {
  http_proxy::g_server() = nullptr;
  receive_each({post("on"), small_body});
  ask(*proxy);
  expect_upstream(posted("on", small_body));
  EXPECT_EQ(proxy->complete, 1);
}

TEST_F(chunked_forward_test, request_is_relayed_and_complete_however_it_is_cut) {
  const std::string head = "POST http://" + place() + "/p HTTP/1.1\r\n" + chunked + "\r\n";
  const std::string wanted = "POST /p HTTP/1.1\r\n" + chunked + "\r\n" + chunks;
  const std::string request = head + chunks;
  for (size_t cut = 0; cut <= request.size(); cut++) {
    SCOPED_TRACE(cut);
    start_over();
    receive_each({request.substr(0, cut), request.substr(cut)});
    expect_upstream(wanted);
    EXPECT_EQ(proxy->complete, 1);
    receive_each({head, chunks});
    expect_upstream(wanted + wanted);
    EXPECT_EQ(upstreams(), 1);
  }
}

TEST_F(chunked_forward_test, tunnel_ignores_codings) {
  for (const char* lines : {"", "Transfer-Encoding: chunked\r\n"}) {
    start_over();
    receive("CONNECT " + place() + " HTTP/1.1\r\n" + lines + "\r\nfirst");
    receive_each({"0\r\n\r\n", "second"});
    expect_upstream("first0\r\n\r\nsecond");
    EXPECT_EQ(to_client(), tunnel_opened);
  }
}

TEST_F(chunked_block_test, chunks_for_a_blocked_host_are_dropped) {
  const std::string head = "POST http://blocked/ HTTP/1.1\r\n" + chunked + "\r\n";
  receive_each({head, chunks, head + chunks, "CONNECT blocked:1 HTTP/1.1\r\n\r\n"});
  EXPECT_EQ(to_client(), not_found + not_found + not_found);
  EXPECT_EQ(proxy->complete, 3);
  expect_upstream("");
}

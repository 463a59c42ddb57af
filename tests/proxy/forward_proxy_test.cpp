// http_proxy as a forward proxy, by hand: where requests go, and the bytes that are queued for them.

#include <tuple>

#include "base/split_url.h"
#include "tests/proxy/proxy_fixtures.h"

namespace {

struct forward_proxy_test : proxy_object<http_proxy> {
  listener second_upstream;

  std::string at(const listener& l, const std::string& host = "127.0.0.1") {
    return host + ":" + std::to_string(l.port());
  }
  std::string url(const std::string& path = "") { return "http://" + at(upstream) + path; }

  void get(const std::string& url, const std::string& lines = "", const std::string& body = "") {
    receive("GET " + url + " HTTP/1.1\r\n" + lines + "\r\n" + body);
  }
  void open_tunnel(const std::string& target) { receive("CONNECT " + target + " HTTP/1.1\r\n\r\n"); }
};

// Blocks some hosts, and notes the hosts that it was asked about.
struct guarded_proxy : http_proxy {
  std::vector<std::string> asked;
  bool should_block(const std::string& host) override {
    asked.push_back(host);
    return host != "127.0.0.1";
  }
};

using guarded_proxy_test = proxy_object<guarded_proxy>;

}  // namespace

TEST_F(forward_proxy_test, url_is_rewritten_to_its_path) {
  const std::pair<const char*, const char*> table[] = {
      {"", "/"},
      {"/", "/"},
      {"/a/b?c=d&e", "/a/b?c=d&e"},
      {"/a?u=http://x:1/y", "/a?u=http://x:1/y"},
      {"/%C3%BC#f", "/%C3%BC#f"},
  };
  for (const auto& [path, wanted] : table) {
    SCOPED_TRACE(path);
    start_over();
    get(url(path), "Host: elsewhere\r\n");
    EXPECT_EQ(to_upstream(), "GET " + std::string(wanted) + " HTTP/1.1\r\nHost: elsewhere\r\n\r\n");
    EXPECT_EQ(to_client(), "");
  }
}

TEST_F(forward_proxy_test, method_and_version_go_on_as_they_came) {
  for (const char* method : {"POST", "delete", "X-ODD", "connect", "Connect", "CONNECTS"}) {
    start_over();
    receive(method + (" " + url("/p")) + " HTTP/1.0\r\nHost: h\r\n\r\n");
    EXPECT_EQ(to_upstream(), std::string(method) + " /p HTTP/1.0\r\nHost: h\r\n\r\n");
    EXPECT_EQ(to_client(), "");
  }
}

TEST_F(forward_proxy_test, header_lines_are_filtered_and_none_is_added) {
  get(url("/p"),
      "Host: h\r\nProxy-Connection: keep-alive\r\nX-Forwarded-For: 9.9.9.9\r\nConnection: close\r\n"
      "Proxy-Authorization: x\r\nconnection: kept\r\nAccept: */*\r\n");
  EXPECT_EQ(
      to_upstream(),
      "GET /p HTTP/1.1\r\nHost: h\r\nX-Forwarded-For: 9.9.9.9\r\nconnection: kept\r\nAccept: */*\r\n\r\n");
  start_over();
  get(url());
  EXPECT_EQ(to_upstream(), "GET / HTTP/1.1\r\n\r\n");
}

TEST_F(forward_proxy_test, body_follows_the_head_however_it_arrives) {
  const std::string request = "POST " + url("/p") + " HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789";
  for (size_t cut = 0; cut <= request.size(); cut++) {
    start_over();
    receive(request.substr(0, cut));
    receive(request.substr(cut));
    EXPECT_EQ(to_upstream(), "POST /p HTTP/1.1\r\nContent-Length: 10\r\n\r\n0123456789") << cut;
  }
}

TEST_F(forward_proxy_test, console_shows_the_request_without_a_host) {
  get(url("/p?q"), "Host: h\r\nUser-Agent: curl/8.0\r\n");
  EXPECT_EQ(out.text(), "10.0.0.7:51234 GET " + url("/p?q") + " HTTP/1.1 [curl/8.0]\n");
}

TEST_F(forward_proxy_test, line_on_the_console_is_not_flushed) {
  expect_unflushed([this] { get(url()); }, "10.0.0.7:51234 GET " + url() + " HTTP/1.1 []\n");
}

// The message of a failed look-up shows where the connection would have gone.
TEST_F(forward_proxy_test, target_without_a_port_means_the_port_of_its_scheme) {
  const std::tuple<const char*, const char*, const char*> table[] = {
      {"GET", "http://h/", "h:80"},
      {"GET", "http://h", "h:80"},
      {"GET", "https://h/", "h:443"},
      {"GET", "ftp://h/x", "h:21"},
      {"GET", "//h/x", "h:443"},
      {"GET", "http://h:8080/", "h:8080"},
      {"GET", "https://h:80/", "h:80"},
      {"GET", "ftp://h:2121/x", "h:2121"},
      {"GET",
       "http://b\xc3\xbc"
       "cher.example/",
       "xn--bcher-kva.example:80"},
      {"CONNECT", "h", "h:80"},
      {"CONNECT", "h:8443", "h:8443"},
      {"CONNECT", "h:443", "h:443"},
      {"CONNECT",
       "b\xc3\xbc"
       "cher.example:443",
       "xn--bcher-kva.example:443"},
  };
  for (const auto& [method, target, place] : table) {
    SCOPED_TRACE(target);
    start_over();
    out.clear();
    faults::fail_next_look_up(-2);
    receive(std::string(method) + " " + target + " HTTP/1.1\r\n\r\n");
    EXPECT_EQ(out.text(), "10.0.0.7:51234 " + std::string(method) + " " + target + " HTTP/1.1 []\n" +
                              "getaddrinfo() failed for host " + place + "!\n");
    EXPECT_EQ(to_client(), bad_gateway);
    EXPECT_FALSE(proxy->keep_alive);
  }
}

TEST_F(forward_proxy_test, invalid_host_is_refused_without_a_look_up) {
  for (const std::string& host : {std::string("a..b"), std::string(400000, '.'), std::string(64, 'x'),
                                  std::string("a%b"), std::string("[::1]"), std::string(300, 'x')}) {
    SCOPED_TRACE(host.substr(0, 70));
    start_over();
    out.clear();
    faults::clear();
    receive("GET http://" + host + "/ HTTP/1.1\r\n\r\n");
    EXPECT_EQ(faults::calls()["getaddrinfo"], 0);
    const std::string name = host.substr(0, host.find(':'));
    const int port = name == host ? 80 : 0;
    EXPECT_EQ(out.text(), "10.0.0.7:51234 GET http://" + host + "/ HTTP/1.1 []\n" +
                              "getaddrinfo() failed for host " + name + ":" + std::to_string(port) + "!\n");
    EXPECT_EQ(to_client(), bad_gateway);
    EXPECT_FALSE(proxy->keep_alive);
  }
}

TEST_F(forward_proxy_test, opened_upstream_is_remembered_and_makes_the_client_stay) {
  get(url());
  EXPECT_EQ(proxy->upstream_host, "127.0.0.1");
  EXPECT_EQ(proxy->upstream_port, upstream.port());
  EXPECT_EQ(proxy->timeout, -1);
  EXPECT_TRUE(proxy->keep_alive);
  EXPECT_EQ(proxy->pipe->refs, 2);
  ASSERT_EQ(upstreams(), 1);
  EXPECT_EQ(upstream_side().timeout, -1);
  EXPECT_EQ(upstream_side().pipe, proxy->pipe);
  EXPECT_TRUE(sockets::has(sockets::all(), upstream_side().sock));
}

TEST_F(forward_proxy_test, requests_to_one_host_and_port_share_an_upstream) {
  get(url("/1"));
  get("ftp://" + at(upstream) + "/2");
  EXPECT_EQ(upstreams(), 1);
  EXPECT_EQ(to_upstream(), "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
}

TEST_F(forward_proxy_test, other_port_or_other_name_gets_an_upstream_of_its_own) {
  get(url("/1"));
  get("http://" + at(second_upstream) + "/2");
  EXPECT_EQ(upstreams(), 2);
  EXPECT_EQ(to_upstream(), "GET /2 HTTP/1.1\r\n\r\n");
  // The same upstream under another name counts as another upstream.
  get("http://" + at(second_upstream, "localhost") + "/3");
  EXPECT_EQ(upstreams(), 3);
  EXPECT_EQ(to_upstream(), "GET /3 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(proxy->upstream_host, "localhost");
}

TEST_F(forward_proxy_test, letter_case_of_the_host_counts) {
  get("http://" + at(upstream, "localhost") + "/1");
  faults::fail_next_look_up(-2);
  get("http://" + at(upstream, "LOCALHOST") + "/2");
  EXPECT_EQ(to_client(), bad_gateway);
}

TEST_F(forward_proxy_test, host_that_shares_only_its_beginning_is_another_host) {
  for (const auto& [first, second] :
       {std::pair("127.0.0.1", "127.0.0.10"), std::pair("127.0.0.1", "127.0.0.")}) {
    start_over();
    get("http://" + at(upstream, first) + "/1");
    faults::fail_next_look_up(-2);
    get("http://" + at(upstream, second) + "/2");
    EXPECT_EQ(to_client(), bad_gateway) << second;
  }
}

TEST_F(forward_proxy_test, upstream_that_has_ended_is_not_reused) {
  get(url("/1"));
  end_upstream();
  get(url("/2"));
  EXPECT_EQ(upstreams(), 1);
  EXPECT_EQ(to_upstream(), "GET /2 HTTP/1.1\r\n\r\n");
}

// The current upstream of a new client is an empty host with port 0, so this target seems to be connected. No
// connection is opened, nobody gets the request, and the client ends by its time-out.
TEST_F(forward_proxy_test, target_without_a_host_and_with_port_0_gets_the_idle_pipe) {
  const std::string url = "http://" + std::string(1, '\0') + ":0/";
  ASSERT_EQ(split_url(url).host, "");
  ASSERT_EQ(split_url(url).port, 0);
  get(url);
  EXPECT_TRUE(is_idle());
  EXPECT_EQ(to_upstream(), "GET / HTTP/1.1\r\n\r\n");
  output o = ask(*proxy);
  EXPECT_EQ(o.bytes, "");
  EXPECT_TRUE(o.stays_open);
  EXPECT_EQ(to_upstream(), "");
  EXPECT_TRUE(proxy->keep_alive);
  EXPECT_EQ(proxy->timeout, 10);
}

TEST_F(forward_proxy_test, refused_upstream_is_answered_and_the_connection_closes) {
  const std::string place = "127.0.0.1:" + std::to_string(closed.port());
  for (const std::string& line : {"GET http://" + place + "/", "CONNECT " + place}) {
    SCOPED_TRACE(line);
    start_over();
    receive(line + " HTTP/1.1\r\n" + length_of("body") + "\r\nbody");
    EXPECT_FALSE(proxy->keep_alive);
    EXPECT_EQ(proxy->upstream_host, "");
    EXPECT_EQ(proxy->upstream_port, 0);
    EXPECT_EQ(proxy->timeout, 10);
    EXPECT_EQ(to_upstream(), "body");
    EXPECT_EQ(upstreams(), 0);
    output o = ask(*proxy);
    EXPECT_EQ(to_upstream(), "");
    EXPECT_EQ(o.bytes, bad_gateway);
    EXPECT_FALSE(o.stays_open);
  }
}

TEST_F(forward_proxy_test, tunnel_is_answered_and_nothing_of_its_request_goes_to_the_upstream) {
  receive("CONNECT " + at(upstream) + " HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(to_client(), tunnel_opened);
  EXPECT_EQ(to_upstream(), "");
  EXPECT_FALSE(proxy->keep_alive);
  EXPECT_EQ(proxy->timeout, -1);
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(forward_proxy_test, everything_after_the_request_for_a_tunnel_goes_to_the_upstream) {
  const std::string early = "\x16\x03\x01" + random_bytes(500);
  receive("CONNECT " + at(upstream) + " HTTP/1.1\r\n\r\n" + early);
  EXPECT_EQ(to_upstream(), early);
  const std::string like_requests =
      "GET / HTTP/1.1\r\n\r\nCONNECT " + at(second_upstream) + " HTTP/1.1\r\n\r\n";
  receive(like_requests);
  EXPECT_EQ(to_upstream(), early + like_requests);
  EXPECT_EQ(to_client(), tunnel_opened);
  EXPECT_EQ(upstreams(), 1);
}

TEST_F(forward_proxy_test, tunnel_carries_more_than_a_request_may_have) {
  open_tunnel(at(upstream));
  out.clear();
  proxy->request_length = 104857601;  // so many bytes were received: one more than the limit
  receive("still");
  receive(" there");
  EXPECT_EQ(to_upstream(), "still there");
  EXPECT_EQ(out.text(), "");
}

TEST_F(forward_proxy_test, tunnel_takes_over_the_upstream_of_the_requests_before) {
  get(url("/1"));
  deliver(upstream_side(), "reply");
  open_tunnel(at(upstream));
  EXPECT_EQ(upstreams(), 1);
  EXPECT_EQ(to_client(), "reply" + tunnel_opened);
  receive("tunnelled");
  EXPECT_EQ(to_upstream(), "GET /1 HTTP/1.1\r\n\r\ntunnelled");
}

TEST_F(guarded_proxy_test, blocked_host_is_answered_with_404_and_the_connection_stays_usable) {
  receive("GET http://blocked:1/ HTTP/1.1\r\n" + length_of("body") + "\r\nbody");
  EXPECT_EQ(out.text(), "10.0.0.7:51234 GET http://blocked:1/ HTTP/1.1 []\n");
  EXPECT_EQ(upstreams(), 0);
  EXPECT_TRUE(is_idle());
  EXPECT_TRUE(proxy->keep_alive);
  EXPECT_EQ(proxy->timeout, 10);
  output o = ask(*proxy);
  EXPECT_EQ(to_upstream(), "");
  EXPECT_EQ(o.bytes, not_found);
  EXPECT_TRUE(o.stays_open);
  receive("GET http://127.0.0.1:" + std::to_string(upstream.port()) + "/ HTTP/1.1\r\n\r\n");
  EXPECT_EQ(to_upstream(), "GET / HTTP/1.1\r\n\r\n");
}

TEST_F(guarded_proxy_test, blocked_tunnel_is_answered_with_404_and_not_opened) {
  receive("CONNECT blocked:443 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(to_client(), not_found);
  EXPECT_TRUE(proxy->keep_alive);
  EXPECT_EQ(upstreams(), 0);
}

TEST_F(guarded_proxy_test, blocked_host_leaves_the_current_upstream_alone) {
  const std::string url = "http://127.0.0.1:" + std::to_string(upstream.port());
  receive("GET " + url + "/1 HTTP/1.1\r\n\r\n");
  receive("GET http://blocked/ HTTP/1.1\r\n\r\n");
  EXPECT_EQ(to_client(), not_found);
  receive("GET " + url + "/2 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(upstreams(), 1);
  EXPECT_EQ(to_upstream(), "GET /1 HTTP/1.1\r\n\r\nGET /2 HTTP/1.1\r\n\r\n");
}

TEST_F(guarded_proxy_test, host_is_asked_for_once_per_request_in_ascii_form) {
  for (const char* target : {"http://b\xc3\xbc"
                             "cher.example:81/x",
                             "https://Plain.example", "plain:443"})
    receive("GET " + std::string(target) + " HTTP/1.1\r\n\r\n");
  receive("CONNECT m\xc3\xbcnchen.example:443 HTTP/1.1\r\n\r\n");
  EXPECT_EQ(proxy->asked, (std::vector<std::string>{"xn--bcher-kva.example", "Plain.example", "plain",
                                                    "xn--mnchen-3ya.example"}));
}

// Microbenchmarks of what every request passes through: parser, header look-up, host map, byte queue,
// connection objects, answers and the copying of headers. After the time is taken, each benchmark checks its
// result. So a function that is fast because it does nothing ends the program.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "base/byte_queue.h"
#include "base/hashmap.h"
#include "http/http_connection.h"
#include "proxy/http_proxy.h"
#include "proxy/reverse_proxy.h"

namespace {

// A request of a browser.
const std::string browser_request =
    "GET /articles/2024/index.html?page=2 HTTP/1.1\r\n"
    "Host: www.example.com\r\n"
    "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:128.0) Gecko/20100101 Firefox/128.0\r\n"
    "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,image/avif,image/webp,*/*;q=0.8\r\n"
    "Accept-Language: en-GB,en;q=0.5\r\n"
    "Accept-Encoding: gzip, deflate, br\r\n"
    "Referer: https://www.example.com/articles/\r\n"
    "Connection: keep-alive\r\n"
    "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark\r\n"
    "Upgrade-Insecure-Requests: 1\r\n"
    "Sec-Fetch-Dest: document\r\n"
    "Sec-Fetch-Mode: navigate\r\n"
    "Sec-Fetch-Site: same-origin\r\n"
    "Priority: u=1\r\n"
    "\r\n";

const std::string browser_head = browser_request.substr(0, browser_request.size() - 2);

// Ends the program: Google Benchmark itself would report a failure and still end with status 0.
void require(bool is_right, const char* what) {
  if (is_right) return;
  fprintf(stderr, "Wrong: %s\n", what);
  exit(1);
}

// Parses only: it prints no line and gives no answer, because those have costs of their own.
struct silent : http_connection {
  int64_t requests = 0;
  std::string last_target;

  void on_headers() override {}
  void on_request() override {
    requests++;
    last_target.swap(target);  // reset() follows
  }
};

void parse_request(benchmark::State& state) {
  auto conn = std::make_unique<silent>();
  std::string text = browser_request;
  for (auto _ : state) conn->on_recv(text.data(), static_cast<int>(text.size()));
  require(conn->requests == state.iterations(), "parse_request, number of requests");
  require(conn->last_target == "/articles/2024/index.html?page=2", "parse_request, target");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(parse_request);

void get_header(benchmark::State& state, const char* name, const char* expected) {
  const std::string wanted = name;
  std::string value;
  for (auto _ : state) benchmark::DoNotOptimize(value = http_connection::get_header(wanted, browser_head));
  require(value == expected, "get_header, value");
}
BENCHMARK_CAPTURE(get_header, first, "Host", "www.example.com");
BENCHMARK_CAPTURE(get_header, last, "priority", "u=1");
BENCHMARK_CAPTURE(get_header, missing, "content-length", "");

void find_host(benchmark::State& state, const char* name, int expected) {
  base::hashmap<int> hosts;
  for (int i = 0; i < 32; i++) hosts.set("site" + std::to_string(i) + ".example.com", 3000 + i);
  const std::string host = name;
  int port = -2;
  for (auto _ : state) benchmark::DoNotOptimize(port = hosts.get(host));
  require(port == expected, "find_host, port");
}
BENCHMARK_CAPTURE(find_host, known, "site17.example.com", 3017);
BENCHMARK_CAPTURE(find_host, unknown, "www.example.com", 0);

// Appends pieces up to `total` bytes, and then consumes them, one buffer at a time.
void pass_through_queue(benchmark::State& state) {
  const auto piece = static_cast<size_t>(state.range(0));
  const auto total = static_cast<size_t>(state.range(1));
  const std::string data(piece, 'x');
  std::vector<char> buf(connection::out_capacity);
  base::byte_queue queue;
  size_t passed = 0;
  for (auto _ : state) {
    for (size_t n = 0; n < total; n += piece) queue.append(data);
    while (!queue.empty()) benchmark::DoNotOptimize(passed += queue.consume(buf.data(), buf.size()));
  }
  require(passed == static_cast<size_t>(state.iterations()) * total, "pass_through_queue, number of bytes");
  const size_t last = std::min(total, buf.size());
  require(std::string(buf.data(), last) == std::string(last, 'x'), "pass_through_queue, bytes");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(total));
}
BENCHMARK(pass_through_queue)
    ->ArgNames({"piece", "total"})
    ->Args({128, 128})
    ->Args({16384, 16384})
    ->Args({524288, 524288})
    ->Args({524288, 8388608});

// Creates the given number of connections and then deletes them all; the time is for one of them. The memory
// of about 128 ended connections is kept for the next ones, so nearly all connections find some.
void create_connections(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  std::vector<std::unique_ptr<reverse_proxy>> connections(count);
  for (auto _ : state) {
    for (auto& conn : connections) conn.reset(new reverse_proxy);
    for (auto& conn : connections) conn.reset();
  }
  // A connection in the memory of an ended one is like a new one.
  for (auto& conn : connections) conn.reset(new reverse_proxy);
  for (auto& conn : connections) {
    require(conn->sock == -1 && conn->out_len == 0 && conn->head.empty(), "create_connections, fields");
    require(std::count(conn->out, conn->out + connection::out_capacity, '\0') == connection::out_capacity,
            "create_connections, output buffer");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(create_connections)->ArgName("at_once")->Arg(1)->Arg(64)->Arg(128);

void write_answer(benchmark::State& state) {
  auto conn = std::make_unique<silent>();
  const std::string body(static_cast<size_t>(state.range(0)), 'x');
  std::vector<char> buf(connection::out_capacity);
  int len = 0;
  for (auto _ : state) {
    conn->write("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n", body);
    len = 0;
    conn->on_send(buf.data(), connection::out_capacity, &len);
    benchmark::DoNotOptimize(len);
    conn->reset();
  }
  const std::string head = "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: ";
  require(conn->response_parts.count == 0, "write_answer, number of parts");
  require(std::string(buf.data(), static_cast<size_t>(len)) ==
              head + std::to_string(body.size()) + "\r\n\r\n" + body,
          "write_answer, answer");
}
BENCHMARK(write_answer)->ArgName("body")->Arg(128)->Arg(16384);

void copy_headers(benchmark::State& state) {
  std::string copied;
  for (auto _ : state) benchmark::DoNotOptimize(copied = http_proxy::copy_headers(browser_head));
  std::string expected = browser_head.substr(browser_head.find("Host: "));
  const std::string dropped = "Connection: keep-alive\r\n";
  expected.erase(expected.find(dropped), dropped.size());
  require(copied == expected, "copy_headers, lines");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(browser_head.size()));
}
BENCHMARK(copy_headers);

}  // namespace

// Microbenchmarks of what every request passes through: parser, header look-up, host map, byte queue,
// connection objects, answers and the copying of headers.

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#include "base/byte_queue.h"
#include "base/hashmap.h"
#include "http/http_connection.h"
#include "proxy/http_proxy.h"
#include "proxy/reverse_proxy.h"

namespace {

// What a browser sends.
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

// Parses and says nothing: the console line and the answer have their own cost.
struct silent : http_connection {
  void on_headers() override {}
  void on_request() override {}
};

void parse_request(benchmark::State& state) {
  auto conn = std::make_unique<silent>();
  std::string text = browser_request;
  for (auto _ : state) conn->on_recv(text.data(), static_cast<int>(text.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(parse_request);

void get_header(benchmark::State& state, const char* name) {
  const std::string wanted = name;
  for (auto _ : state) benchmark::DoNotOptimize(http_connection::get_header(wanted, browser_head));
}
BENCHMARK_CAPTURE(get_header, first, "Host");
BENCHMARK_CAPTURE(get_header, last, "priority");
BENCHMARK_CAPTURE(get_header, missing, "content-length");

void find_host(benchmark::State& state, const char* name) {
  base::hashmap<int> hosts;
  for (int i = 0; i < 32; i++) hosts.set("site" + std::to_string(i) + ".example.com", 3000 + i);
  const std::string host = name;
  for (auto _ : state) benchmark::DoNotOptimize(hosts.get(host));
}
BENCHMARK_CAPTURE(find_host, known, "site17.example.com");
BENCHMARK_CAPTURE(find_host, unknown, "www.example.com");

// Appends pieces until `total` bytes are there, and consumes them a buffer at a time.
void pass_through_queue(benchmark::State& state) {
  const auto piece = static_cast<size_t>(state.range(0));
  const auto total = static_cast<size_t>(state.range(1));
  const std::string data(piece, 'x');
  std::vector<char> buf(connection::out_capacity);
  base::byte_queue queue;
  for (auto _ : state) {
    for (size_t n = 0; n < total; n += piece) queue.append(data);
    while (!queue.empty()) benchmark::DoNotOptimize(queue.consume(buf.data(), buf.size()));
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(total));
}
BENCHMARK(pass_through_queue)
    ->ArgNames({"piece", "total"})
    ->Args({128, 128})
    ->Args({16384, 16384})
    ->Args({524288, 524288})
    ->Args({524288, 8388608});

// Creates so many connections and then deletes them all; the time is for one of them. Up to 64 ended objects
// are kept for the next ones, so 128 at once go half beyond.
void create_connections(benchmark::State& state) {
  const auto count = static_cast<size_t>(state.range(0));
  std::vector<std::unique_ptr<reverse_proxy>> connections(count);
  for (auto _ : state) {
    for (auto& conn : connections) conn.reset(new reverse_proxy);
    for (auto& conn : connections) conn.reset();
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(create_connections)->ArgName("at_once")->Arg(1)->Arg(64)->Arg(128);

void write_answer(benchmark::State& state) {
  auto conn = std::make_unique<silent>();
  const std::string body(static_cast<size_t>(state.range(0)), 'x');
  std::vector<char> buf(connection::out_capacity);
  for (auto _ : state) {
    conn->write("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n", body);
    while (conn->response_parts.count > 0) {
      int len = 0;
      conn->on_send(buf.data(), connection::out_capacity, &len);
      benchmark::DoNotOptimize(len);
    }
    conn->reset();
  }
}
BENCHMARK(write_answer)->ArgName("body")->Arg(128)->Arg(16384);

void copy_headers(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(http_proxy::copy_headers(browser_head));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(browser_head.size()));
}
BENCHMARK(copy_headers);

}  // namespace

/* slow_job: a thread computes an answer that takes a while, and the loop serves other clients meanwhile.
 *
 *     slow_job [port]
 *
 * GET /1000000 answers how many primes there are below a million. */

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <thread>

#include "base/text.h"
#include "http/http_connection.h"
#include "net/server.h"
#include "net/sockets.h"

namespace {

constexpr int max_jobs = 16;  // threads that work at the same time, for all clients together

/* Counts primes in a thread of its own. The response part that holds this job deletes it. So when the client
 * leaves early, the work ends early, too. */
struct prime_count : http_connection::job {
  /* Starts the work and hands it over. Returns null when max_jobs threads work, or when the system gives no
   * further thread. */
  static prime_count* start(long below) {
    if (at_work() == max_jobs) return nullptr;
    try {
      return new prime_count(below);
    } catch (const std::system_error&) {
      return nullptr;
    }
  }

  ~prime_count() override {
    is_cancelled_ = true;
    thread_.join();
    at_work()--;
  }

 private:
  explicit prime_count(long below) : thread_([this, below] { work(below); }) { at_work()++; }

  /* The number of jobs. Only the loop's thread makes and deletes them. */
  static int& at_work() {
    static int count = 0;
    return count;
  }

  std::atomic<bool> is_cancelled_{false};
  std::thread thread_;  // last, so that it starts when all other fields are there

  void work(long below) {
    int primes = 0;  // a var holds no long
    for (long n = 2; n < below && !is_cancelled_; n++) primes += is_prime(n);
    result = var(primes);
    // The loop polls `done` from its own thread: the result must be visible before it.
    __atomic_store_n(&done, true, __ATOMIC_RELEASE);
  }

  static bool is_prime(long n) {
    for (long d = 2; d * d <= n; d++) {
      if (n % d == 0) return false;
    }
    return true;
  }
};

struct job_connection : http_connection {
  void on_request() override {
    if (written) return;  // a refused upgrade, or bytes after the last request: no thread for these
    if (response_parts.count > 0) return hang_up();  // one job at a time for each client
    // Not base::parse_int(), which would cut the number off at 32 bits.
    const long below = path.empty() ? 0 : strtol(path.c_str() + 1, nullptr, 10);
    if (method != "GET" || below <= 0) {
      write("HTTP/1.1 400 Bad Request\r\nContent-Type: text/plain\r\n", "Ask for a number: GET /1000000\n");
      return;
    }
    job* work = prime_count::start(below);
    if (!work) {
      write("HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain\r\n",
            "Too many at once. Ask again.\n");
      return;
    }
    auto* part = new response_part;  // deleted by the connection
    part->thread = work;
    part->timeout = 10;
    // The result becomes the one chunk of the body.
    write("HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nTransfer-Encoding: chunked\r\n", "");
    response_parts.push(part);
    timeout = -1;  // none until the job is done; then the time-out of the part holds
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    printf("USAGE: slow_job [port]\n");
    return 1;
  }
  sockets::raise_descriptor_limit();
  server<job_connection> http(base::parse_int(argv[1]));
  http.run();
  return 0;
}

/* exchange: one request of the soak and its response, down to the last byte.
 *
 * The seed of the run, a kind and a key decide every byte of an exchange. The kind and the key are in the
 * target of the request. So the upstream knows the bytes that the client must have sent, and the client knows
 * the bytes that the upstream must answer. Neither parses anything: each compares the bytes that come with
 * the right bytes.
 *
 * A body is a piece of one long random pattern; the key tells where it begins. The pattern repeats after a
 * prime number of bytes, so a piece that is lost, doubled or out of order changes the bytes that follow. */
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

/* The random numbers; they are the same in every run with the same seed. */
inline uint64_t mix(uint64_t x) {  // the finaliser of splitmix64
  x += 0x9e3779b97f4a7c15;
  x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9;
  x = (x ^ (x >> 27)) * 0x94d049bb133111eb;
  return x ^ (x >> 31);
}

struct random_numbers {
  uint64_t state;

  uint64_t below(uint64_t limit) { return (state = mix(state)) % limit; }
};

/* The bodies are pieces of this pattern. */
struct pattern {
  static constexpr size_t period = 1000003;  // prime
  std::vector<char> bytes;

  explicit pattern(uint64_t seed) {
    random_numbers random = {seed};
    for (size_t i = 0; i < period; i++) bytes.push_back(static_cast<char>(random.below(256)));
  }
};

/* Bytes on a connection: a head, and a body from the pattern. */
struct message {
  std::string head;
  uint64_t start = 0;  // where in the pattern the body begins
  size_t body = 0;     // its length

  size_t size() const { return head.size() + body; }

  /* Finds the bytes from `at` on that are in one place in memory. Stores their address and returns their
   * number. */
  size_t piece(const pattern& source, size_t at, const char*& data) const {
    if (at < head.size()) {
      data = head.data() + at;
      return head.size() - at;
    }
    const size_t place = (start + at - head.size()) % pattern::period;
    data = source.bytes.data() + place;
    return std::min(size() - at, pattern::period - place);
  }

  /* Compares `data` with the bytes from `at` on. Returns the number of equal bytes before the first
   * difference. */
  size_t count_equal(const pattern& source, size_t at, const char* data, size_t len) const {
    size_t done = 0;
    while (done < len && at + done < size()) {
      const char* expected = nullptr;
      const size_t n = std::min(piece(source, at + done, expected), len - done);
      if (memcmp(expected, data + done, n) != 0)
        return done +
               static_cast<size_t>(std::mismatch(expected, expected + n, data + done).first - expected);
      done += n;
    }
    return done;
  }
};

enum exchange_kind : char {
  relayed = 'r',
  large = 'l',     // relayed, with bodies of some MiB
  uploaded = 'u',  // relayed, with a request of many MiB
  echoed = 'e',    // answered by mivo itself
  left = 'c',      // the client closes early, in the request or in the response
  dropped = 'd',   // the upstream closes in the middle of its response
};

struct exchange {
  exchange_kind kind = relayed;
  uint64_t key = 0;
  message request;    // as the client sends it
  message forwarded;  // as the upstream must get it
  message reply;

  static constexpr size_t target_len = 18;  // a slash, the kind, and the key as 16 digits

  /* The client's address is 127.0.0.N, where N is the lowest byte of the key. */
  exchange(uint64_t seed, exchange_kind the_kind, uint64_t the_key) : kind(the_kind), key(the_key) {
    random_numbers random = {mix(seed) ^ key};
    const bool has_body = kind == uploaded || (kind != echoed && random.below(4) == 0);
    request.start = random.below(pattern::period);
    request.body = kind == uploaded ? random.below(32 << 20) : has_body ? body_size(random) : 0;
    reply.start = random.below(pattern::period);
    reply.body = body_size(random);
    write_request(random, has_body);
    write_reply();
  }

 private:
  // A random length: mostly small, sometimes larger than any buffer on the way.
  size_t body_size(random_numbers& random) const {
    if (kind == large) return random.below(8 << 20);
    const uint64_t what = random.below(1000);
    if (what < 900) return random.below(1 << 10);
    if (what < 985) return random.below(1 << 14);
    return random.below(what < 999 ? 1 << 16 : 3 << 19);
  }

  std::string address() const { return "127.0.0." + std::to_string(key & 255); }

  void write_request(random_numbers& random, bool has_body) {
    char target[target_len + 1];
    snprintf(target, sizeof(target), "/%c%016llx", kind, static_cast<unsigned long long>(key));
    const std::string line = std::string(has_body ? "POST " : "GET ") + target + " HTTP/1.1\r\n";
    std::string fields = std::string("Host: ") + (kind == echoed ? "echo" : "soak") + "\r\n";
    for (uint64_t i = random.below(4); i > 0; i--)
      fields +=
          "X-" + std::string(1 + random.below(20), 'f') + ": " + std::string(random.below(200), 'v') + "\r\n";
    if (has_body) fields += "Content-Length: " + std::to_string(request.body) + "\r\n";
    const bool says_connection = random.below(2) == 0;
    request.head = line + fields + (says_connection ? "Connection: keep-alive\r\n" : "") + "\r\n";
    forwarded = request;
    forwarded.head = line + fields + "X-Forwarded-For: " + address() + "\r\n\r\n";
  }

  void write_reply() {
    if (kind == echoed) {
      const std::string page = request.head + "Your IPv4 address is: " + address();
      reply.body = 0;
      reply.head =
          "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: " + std::to_string(page.size()) +
          "\r\n\r\n" + page;
      return;
    }
    reply.head = "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(reply.body) + "\r\n\r\n";
    if (kind == dropped) reply.body /= 2;  // the part that the upstream sends
  }
};

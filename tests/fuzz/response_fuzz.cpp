// The response writer: responses, redirects, frames, files and jobs, queued and sent in any order.
//
// Input: a byte of flags, then operations of one byte each, followed by their operands. Rule: the output is
// what was queued, in order, whatever the size of the buffer.

#include <stdexcept>

#include "http/http_connection.h"
#include "tests/fuzz/fuzz.h"

using fuzz::expect;
using fuzz::expect_equal;

namespace {

class player {
 public:
  explicit player(fuzz::input& in) : in_(in) {}

  void play() {
    const int flags = in_.byte();
    c_->keep_alive = (flags & 1) == 0;
    c_->method = flags & 2 ? "HEAD" : "GET";
    while (!in_.is_at_end()) step();
    for (http_connection::job* job : jobs_) job->done = true;
    // Each call moves a byte or ends a part.
    for (size_t calls = expected_.size() + parts_ + 1; c_->response_parts.count > 0; calls--) {
      expect(calls > 0, "the queue drains");
      send(4096);
    }
    expect_equal(sent_, expected_, "what is sent is what was queued");
    int len = 0;
    char nothing = 0;
    const bool stays = c_->on_send(&nothing, 1, &len);
    expect(len == 0 && stays == (c_->written ? c_->keep_alive : true), "after the last part comes the end");
  }

 private:
  fuzz::input& in_;
  fuzz::in_place<http_connection> c_;
  std::vector<http_connection::job*> jobs_;  // not sent yet, owned by the parts that hold them
  std::string expected_;
  std::string sent_;
  size_t parts_ = 0;

  void step() {
    switch (in_.byte() % 9) {
      case 0:
        write(in_.field(), in_.field());
        break;
      case 1:
        redirect(in_.field(), (in_.byte() & 1) != 0);
        break;
      case 2:
        send_message(in_.field(), in_.byte());
        break;
      case 3:
        add_file(in_.field(), in_.byte());
        break;
      case 4:
        add_job(in_.field());
        break;
      case 5:
        if (!jobs_.empty()) jobs_.back()->done = true;
        break;
      case 6:
        send(in_.byte() + 1u);
        break;
      case 7:
        c_->response_headers = in_.field();
        break;
      default:
        c_->reset();
        c_->method = in_.byte() & 1 ? "HEAD" : "POST";
    }
  }

  static std::string lower(std::string text) {
    for (char& ch : text) ch = static_cast<char>(ch >= 'A' && ch <= 'Z' ? ch + 32 : ch);
    return text;
  }

  // The value of a header line, or "" when there is none. Sets `is_short` when fewer than two bytes follow
  // the name.
  static std::string header(const std::string& name, const std::string& head, bool& is_short) {
    const size_t at = lower(head).find("\r\n" + name);
    if (at == head.npos) return "";
    const std::string behind = head.substr(at + 2 + name.size());
    if (behind.size() < 2) is_short = true;
    return behind.size() < 2 ? "" : behind.substr(2, behind.find("\r\n", 2) - 2);
  }

  void write(const std::string& head, const std::string& body) {
    bool is_short = false;
    bool is_measured = false;
    if (c_->keep_alive && !c_->written) {
      is_measured = !header("content-length", head, is_short).empty();
      if (!is_measured && !is_short) is_measured = !header("transfer-encoding", head, is_short).empty();
    }
    const bool counts = !c_->written;
    const bool has_length = c_->keep_alive && !is_measured;
    bool has_thrown = false;
    try {
      c_->write(head, body);
    } catch (const std::out_of_range&) {
      has_thrown = true;
    }
    expect(has_thrown == is_short, "a head that ends directly after the name of a length is refused");
    if (!counts || has_thrown) return;
    expected_ += head;
    if (has_length) expected_ += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    expected_ += c_->response_headers + "\r\n" + (c_->method == "HEAD" ? "" : body);
    parts_++;
  }

  void redirect(const std::string& url, bool permanent) {
    if (url.find("\r\n") != url.npos) return;  // it would add header lines; write() is fuzzed with those
    const bool counts = !c_->written;
    c_->redirect(url, permanent);
    if (!counts) return;
    std::string body;
    if (!permanent)
      body = "<html>This page has temporarily moved to <a href=\"" + url + "\">" + url +
             "</a><script>window.open('" + url + "');</script></html>";
    expected_ += std::string("HTTP/1.1 ") + (permanent ? "301 Moved Permanently" : "302 Found") +
                 "\r\nLocation: " + url + "\r\n" +
                 (permanent ? "Connection: close\r\n" : "Content-Type: text/html\r\n");
    if (c_->keep_alive) expected_ += "Content-Length: " + std::to_string(body.size()) + "\r\n";
    expected_ += c_->response_headers + "\r\n" + (c_->method == "HEAD" ? "" : body);
    parts_++;
  }

  // Two bits of `kind` make the payload longer, to reach the longer forms of a length.
  void send_message(std::string payload, int kind) {
    if (kind & 0x20) payload.append(300, 'p');
    if (kind & 0x40) payload.append(70000, 'q');
    const int opcode = kind & 15;
    c_->send_message(payload, opcode);
    const size_t n = payload.size();
    expected_ += static_cast<char>(opcode | 0x80);
    if (n < 126) {
      expected_ += static_cast<char>(n);
    } else if (n < 65536) {
      expected_ += {126, static_cast<char>(n >> 8), static_cast<char>(n)};
    } else {
      expected_ += std::string("\x7F\0\0\0\0\0", 6);
      expected_ += {static_cast<char>(n >> 16), static_cast<char>(n >> 8), static_cast<char>(n)};
    }
    expected_ += payload;
    parts_++;
  }

  // A file that is sent from its position on, without a limit or with its own length as the limit.
  void add_file(const std::string& bytes, int kind) {
    if (bytes.empty()) return;  // fmemopen() takes no empty buffer
    FILE* file = fmemopen(nullptr, bytes.size() + 1, "w+");
    expect(file != nullptr, "a file in memory can be made");
    fwrite(bytes.data(), 1, bytes.size(), file);
    rewind(file);
    auto* part = new http_connection::response_part;  // deleted by the connection
    part->file = file;
    if (kind & 1) part->remaining = static_cast<double>(bytes.size());
    c_->response_parts.push(part);
    expected_ += bytes;
    parts_++;
  }

  void add_job(const std::string& result) {
    auto* part = new http_connection::response_part;  // deleted by the connection
    part->thread = new http_connection::job;          // deleted with the part, or when its result is sent
    part->thread->result = var(result);
    part->timeout = 7;
    jobs_.push_back(part->thread);
    c_->response_parts.push(part);
    char length[32];
    snprintf(length, sizeof(length), "%zX\r\n", result.size());
    expected_ += length + result + "\r\n0\r\n\r\n";
    parts_++;
  }

  void send(size_t cap) {
    if (c_->response_parts.count == 0) return;
    http_connection::job* job = c_->response_parts.front()->thread;
    const bool has_job = job != nullptr;
    const bool waits = has_job && !job->done;
    const std::vector<char> unused(cap, '#');
    std::vector<char> buffer = unused;  // has exactly this size, so that the sanitizer sees a byte too many
    int len = 0;
    const bool stays = c_->on_send(buffer.data(), static_cast<int>(cap), &len);
    expect(len >= 0 && len <= static_cast<int>(cap), "no more is sent than fits");
    expect(stays, "a queue that is not empty keeps the connection open");
    expect(!waits || len == 0, "a job that is not done has nothing to send");
    if (has_job && !waits) {
      expect(c_->timeout == 7, "the idle time-out holds from when a job's result is sent");
      jobs_.erase(jobs_.begin() + position_of(job));
    }
    sent_.append(buffer.data(), static_cast<size_t>(len));
  }

  std::ptrdiff_t position_of(http_connection::job* job) const {
    std::ptrdiff_t at = 0;
    while (jobs_[static_cast<size_t>(at)] != job) at++;
    return at;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  player(in).play();
  return 0;
}

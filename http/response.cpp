// The output side of http_connection: from answers to pieces in the server's buffer.

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <utility>

#include "http/http_connection.h"
#include "net/sockets.h"

http_connection::response_part::~response_part() {
  if (file) fclose(file);
  delete thread;
}

void http_connection::on_request() {
  write("HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\n",
        head + "\r\n" + std::to_string(content.size()) + " bytes of content");
}

void http_connection::write(std::string answer_head, const std::string& body) {
  if (written) {
    printf("Warning! Double write() detected!\n");
    return;
  }
  // Without keep-alive, the end of the connection ends the body.
  if (keep_alive && get_header("content-length", answer_head).empty() &&
      get_header("transfer-encoding", answer_head).empty()) {
    answer_head += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  std::string text = std::move(answer_head) + response_headers + "\r\n";
  if (method != "HEAD") text += body;
  if (text.size() <= static_cast<size_t>(out_capacity)) {
    append_part(std::move(text));  // the usual case, without another copy
  } else {
    for (size_t at = 0; at < text.size(); at += out_capacity) append_part(text.substr(at, out_capacity));
  }
  written = true;
}

void http_connection::write_file(std::string answer_head, FILE* file, int64_t length) {
  const bool is_sent = !written && method != "HEAD" && length > 0;
  response_part* part = nullptr;
  try {
    write(std::move(answer_head) + "Content-Length: " + std::to_string(length) + "\r\n", "");
    if (is_sent) {
      part = new response_part;  // deleted by pop_part() or the destructor
      part->announced = length;
      response_parts.push(part);
      part->file = file;
      return;
    }
  } catch (...) {  // the memory for one of these was refused
    delete part;
    fclose(file);
    throw;
  }
  fclose(file);
}

void http_connection::redirect(const std::string& url, bool permanent) {
  if (permanent) {
    write("HTTP/1.1 301 Moved Permanently\r\nLocation: " + url + "\r\nConnection: close\r\n", "");
  } else {
    write("HTTP/1.1 302 Found\r\nLocation: " + url + "\r\nContent-Type: text/html\r\n",
          "<html>This page has temporarily moved to <a href=\"" + url + "\">" + url +
              "</a><script>window.open('" + url + "');</script></html>");
  }
}

void http_connection::hang_up() {
  written = true;  // else on_send() would wait for an answer
  keep_alive = false;
  timeout = 0;
}

void http_connection::append_part(std::string data) {
  auto* part = new response_part;  // deleted by pop_part() or the destructor
  part->data = std::move(data);
  try {
    response_parts.push(part);
  } catch (...) {
    delete part;
    throw;
  }
  // The pass that asks for output may skip this connection. Because of this call, the next wait ends when the
  // socket can take output.
  sockets::mark_ready(sock);
}

bool http_connection::on_send(char* buf, int cap, int* len) {
  if (response_parts.count == 0) return !written || keep_alive;  // not answered yet: stays open
  response_part& part = *response_parts.front();
  if (part.file) return send_file(part, buf, cap, len);
  if (part.thread) return send_job(part, buf, cap, len);
  return send_data(part, buf, cap, len);
}

// Sends a slice of a file. `remaining`, if it is not negative, is the limit. Each slice of `cap` bytes
// reduces it. A rest below `cap` is never reduced: slices of that size follow until the file ends. So a limit
// is exact only when it is a multiple of `cap` or reaches the end of the file. The part ends when the limit
// is 0, or when a read gives less than a slice.
bool http_connection::send_file(response_part& part, char* buf, int cap, int* len) {
  if (part.announced >= 0) return send_announced(part, buf, cap, len);
  *len = 0;
  int n = cap;
  if (part.remaining >= 0) {
    if (cap > part.remaining)
      n = static_cast<int>(part.remaining);
    else
      part.remaining -= cap;
  }
  if (n > 0) {
    *len = static_cast<int>(fread(buf, 1, static_cast<size_t>(n), part.file));
    if (*len >= n) return true;
  }
  pop_part();
  if (*len == 0) sockets::mark_ready(sock);  // nothing goes out, so no event would start the next part
  return true;
}

// Sends a slice of a file whose length was announced. When the file has lost bytes, nothing follows: the
// client would take the next answer for the rest of the file.
bool http_connection::send_announced(response_part& part, char* buf, int cap, int* len) {
  const auto wanted = static_cast<size_t>(std::min<int64_t>(part.announced, cap));
  const size_t got = fread(buf, 1, wanted, part.file);
  *len = static_cast<int>(got);
  part.announced -= *len;
  if (got < wanted) {
    printf("Warning! A file has ended %lld bytes before its announced length.\n",
           static_cast<long long>(part.announced));
    keep_alive = false;
    written = true;
    while (response_parts.count > 0) pop_part();
    return false;
  }
  if (part.announced == 0) pop_part();
  return true;
}

// Once the job is done, sends its result as one chunk and the last chunk (RFC 9112, section 7.1).
bool http_connection::send_job(response_part& part, char* buf, int cap, int* len) {
  if (!__atomic_load_n(&part.thread->done, __ATOMIC_ACQUIRE)) return true;
  std::string result = part.thread->result;
  char length[32];  // up to 16 digits and CRLF
  snprintf(length, sizeof(length), "%zX\r\n", result.size());
  std::string text = length + result + "\r\n0\r\n\r\n";
  if (text.size() > static_cast<size_t>(out_capacity)) {
    printf("Warning! Thread response (%zu) exceeds buffer size (%d).\n", text.size(), out_capacity);
    text = "0\r\n\r\n";
  }
  last_active = static_cast<int32_t>(time(nullptr));
  timeout = part.timeout;
  delete part.thread;
  part.thread = nullptr;  // now it is a part like any other text, which may go out in slices
  part.data = std::move(text);
  return send_data(part, buf, cap, len);
}

bool http_connection::send_data(response_part& part, char* buf, int cap, int* len) {
  size_t n = part.data.copy(buf, static_cast<size_t>(cap), part.sent);
  *len = static_cast<int>(n);
  part.sent += n;
  if (part.sent == part.data.size()) pop_part();
  return true;
}

void http_connection::pop_part() {
  delete response_parts.pop();
}

// The input side of http_connection: turns the incoming bytes into requests.

#include <netinet/in.h>

#include <charconv>
#include <string_view>

#include "base/find.h"
#include "base/text.h"
#include "http/http_connection.h"

namespace {

constexpr char crlf[] = "\r\n";  // as a name for base::find_line(): the empty line at the end of a head

// The counters may wrap, but a signed addition that overflows is undefined.
int32_t wrapping_sum(int32_t a, int len) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(len));
}

// Positions are compared as signed 32-bit numbers, so npos is -1.
int32_t signed_position(size_t found) {
  return static_cast<int32_t>(found);
}

// Where the next search begins: after what the last one found, or at the beginning when it found nothing.
size_t behind(size_t found) {
  return found == std::string::npos ? 0 : found + 1;
}

}  // namespace

void http_connection::on_recv(char* data, int len) {
  if (max_request_length > 0 && max_request_length < request_length) {
    printf("Warning! Request exceeds max length of %d.\n", max_request_length);
    return;
  }
  request_length = wrapping_sum(request_length, len);
  if (headers_received) {
    content_received = wrapping_sum(content_received, len);
    on_data(data, len);
  } else {
    if (len <= 0) return;
    receive_head(data, len);
  }
  finish_request_maybe();
}

void http_connection::receive_head(char* data, int len) {
  const std::string_view chunk(data, static_cast<size_t>(len));
  const size_t before = head.size();
  // A head mostly comes whole, with or without a body after it. Then its end is found in the chunk itself, so
  // that a MiB of body does not pass through `head`. A request that begins with the empty line is never
  // parsed.
  size_t end = before == 0 ? base::find_line(chunk, crlf) : std::string::npos;
  if (end != std::string::npos && end > 0) {
    head.assign(data, end + 2);
  } else {
    head.append(chunk);
    end = base::find_line(head, crlf, before < 3 ? 0 : before - 3);
    // This search may begin after the first byte, so an empty line at the beginning is looked for separately.
    if (signed_position(end) <= 0 || head.compare(0, 4, "\r\n\r\n") == 0) return;
    head.resize(end + 2);
  }
  // The last byte of the empty line is in this chunk, so all bytes after it are in this chunk, too.
  const int rest = static_cast<int>(before + chunk.size() - end - 4);
  on_head(data + len - rest, rest);
}

// The head is complete: parses it and calls the hooks. `rest` is what came after it in the same chunk.
void http_connection::on_head(char* rest, int rest_length) {
  headers_received = true;
  parse_head();
  content_received = rest_length;
  if (websocket_enabled && get_header("Upgrade", head) == "websocket")
    start_websocket();
  else
    on_headers();
  if (rest_length > 0) on_data(rest, rest_length);
}

// Splits the request line and reads the headers that the connection itself needs. The first two blanks of the
// head split it, wherever they are. So in a malformed head the method and the target may contain line ends.
// Without a second blank the target is empty, and the version is the whole first line.
void http_connection::parse_head() {
  size_t first_space = head.find(' ');
  size_t second_space = head.find(' ', behind(first_space));
  size_t line_end = base::find_line_end(head, behind(second_space));
  if (signed_position(first_space) > 0) method.assign(head, 0, first_space);
  if (signed_position(second_space) > 0) target.assign(head, first_space + 1, second_space - first_space - 1);
  if (signed_position(line_end) > 0)
    version.assign(head, behind(second_space), line_end - behind(second_space));

  content_length = base::parse_int(get_header("content-length", head).c_str());
  // HTTP/1.1 stays open even after "Connection: close": closing is left to the client.
  if (version == "HTTP/1.0" && get_header("connection", head) != "Keep-Alive") keep_alive = false;
  cookie.clear();
  append_header(cookie, "cookie", head);  // into the memory of an earlier cookie

  size_t question = target.find('?');
  if (signed_position(question) > 0) {
    query.assign(target, question + 1);
    path.assign(target, 0, question);
  } else {
    path = target;
  }
}

void http_connection::finish_request_maybe() {
  if (upgraded || !headers_received || content_received < content_length) return;
  on_request();
  if (keep_alive) reset();
}

void http_connection::on_headers() {
  printf("%s\n", info(true).c_str());
}

void http_connection::on_data(char* data, int len) {
  // append() would take a negative length for a huge one.
  if (len > 0) content.append(data, static_cast<size_t>(len));
  if (upgraded && keep_alive) read_frames();
}

void http_connection::reset() {
  max_request_length = usual_max_request_length;
  headers_received = false;
  written = false;
  content_length = 0;
  content_received = 0;
  request_length = 0;
  for (std::string* s :
       {&head, &content, &message, &response_headers, &cookie, &query, &path, &version, &target, &method}) {
    base::empty_for_reuse(*s);
  }
}

std::string http_connection::ip_text() const {
  std::string text;
  base::append_dotted_quad(text, ip);
  return text;
}

std::string http_connection::info(bool with_agent) const {
  std::string text;
  append_info(text, with_agent);
  return text;
}

void http_connection::append_info(std::string& to, bool with_agent) const {
  const size_t before = to.size();
  if (ip == htonl(INADDR_LOOPBACK)) append_header(to, "x-forwarded-for", head);
  if (to.size() == before) base::append_dotted_quad(to, ip);
  char digits[12];
  char* const end = std::to_chars(digits, digits + sizeof(digits), port).ptr;
  to.append(":").append(digits, static_cast<size_t>(end - digits));
  to.append(" ").append(method).append(" ").append(target).append(" ").append(version);
  if (!with_agent) return;
  to += " [";
  append_header(to, "user-agent", head);
  to += "]";
}

namespace {

bool has_wildcard(std::string_view name) {
  for (char c : name) {
    if (c == '?' || c == '*') return true;
  }
  return false;
}

}  // namespace

void http_connection::append_header(std::string& to, std::string_view name, const std::string& text) {
  size_t end = std::string::npos;
  if (base::find_case_insensitive() && !has_wildcard(name)) {
    const size_t line = base::find_line(text, name);
    if (line != std::string::npos) end = line + 2 + name.size();
  } else {
    base::find(text, std::string("\r\n").append(name), end);
  }
  if (end == std::string::npos) return;
  size_t start = end + 2;  // skips two bytes, which should be ": "
  to.append(text, start, base::find_line_end(text, start) - start);
}

std::string http_connection::get_header(const std::string& name, const std::string& text) {
  std::string value;
  append_header(value, name, text);
  return value;
}

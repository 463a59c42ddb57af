/* request_model: a second opinion on how chunks become requests, written for clarity alone.
 *
 * It applies one rule after the other, in the order in which they are stated. Positions are signed numbers;
 * -1 means "not found". It searches everything from the start each time. It shares no code with the parser.
 * The strings that it makes are compared with those of a recorder. */
#pragma once

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

struct request_model {
  bool headers_received = false;
  std::string head;
  int64_t max_request_length = 104857600;
  int64_t request_length = 0;
  int64_t content_received = 0;
  int64_t content_length = 0;
  std::string content;
  bool keep_alive = true;
  std::string method, target, version, path, query, cookie;
  bool websocket_enabled = true;
  bool upgraded = false;
  std::vector<std::string> events;
  std::string printed;

  static int64_t find(const std::string& what, const std::string& text, int64_t from) {
    for (int64_t i = from; i + ssize(what) <= ssize(text); i++) {
      if (text.compare(static_cast<size_t>(i), what.size(), what) == 0) return i;
    }
    return -1;
  }

  static std::string between(const std::string& text, int64_t from, int64_t to) {
    std::string result;
    for (int64_t i = from; i < to; i++) result += text[static_cast<size_t>(i)];
    return result;
  }

  static std::string header(std::string name, const std::string& text) {
    std::string folded = text;
    for (std::string* s : {&name, &folded}) {
      for (char& ch : *s) ch = static_cast<char>(tolower(static_cast<unsigned char>(ch)));
    }
    int64_t at = find("\r\n" + name, folded, 0);
    if (at < 0) return "";
    int64_t start = at + 2 + ssize(name) + 2;
    int64_t end = find("\r\n", text, start);
    return between(text, start, end < 0 ? ssize(text) : end);
  }

  static int64_t number(const std::string& text) {
    return static_cast<int32_t>(strtol(text.c_str(), nullptr, 10));
  }

  void receive(const std::string& chunk) {
    if (max_request_length > 0 && max_request_length < request_length) {
      printed += "Warning! Request exceeds max length of " + std::to_string(max_request_length) + ".\n";
      return;
    }
    request_length += ssize(chunk);
    if (headers_received) {
      content_received += ssize(chunk);
      take_data(chunk);
    } else {
      if (chunk.empty()) return;
      head += chunk;
      int64_t end = find("\r\n\r\n", head, 0);
      if (end > 0) take_head(end);
    }
    complete_maybe();
  }

 private:
  static int64_t ssize(const std::string& s) { return static_cast<int64_t>(s.size()); }

  void take_data(const std::string& run) {
    events.push_back("data " + run);
    content += run;
  }

  void take_head(int64_t end) {
    std::string rest = between(head, end + 4, ssize(head));
    head = between(head, 0, end + 2);
    headers_received = true;

    int64_t s1 = find(" ", head, 0);
    int64_t s2 = find(" ", head, s1 + 1);
    int64_t e = find("\r\n", head, s2 + 1);
    if (s1 > 0) method = between(head, 0, s1);
    if (s2 > 0) target = between(head, s1 + 1, s2);
    if (e > 0) version = between(head, s2 + 1, e);

    content_length = number(header("content-length", head));
    content_received = ssize(rest);
    if (version == "HTTP/1.0" && header("connection", head) != "Keep-Alive") keep_alive = false;
    cookie = header("cookie", head);

    path = target;
    int64_t q = find("?", target, 0);
    if (q > 0) {
      path = between(target, 0, q);
      query = between(target, q + 1, ssize(target));
    }

    bool wants_websocket = websocket_enabled && header("Upgrade", head) == "websocket";
    if (!wants_websocket) {
      events.push_back("headers");
    } else if (number(header("Sec-WebSocket-Version", head)) == 13 &&
               !header("Sec-WebSocket-Key", head).empty()) {
      upgraded = true;
      max_request_length = 0;
      events.push_back("upgrade");
      keep_alive = false;
    }
    if (!rest.empty()) take_data(rest);
  }

  void complete_maybe() {
    if (upgraded || !headers_received || content_received < content_length) return;
    events.push_back("request");
    if (!keep_alive) return;
    headers_received = false;
    head = content = method = target = version = path = query = cookie = "";
    max_request_length = 104857600;
    request_length = content_received = content_length = 0;
  }
};

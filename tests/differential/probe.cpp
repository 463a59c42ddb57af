// Runs cases for the tests in this folder. Each line is a case: the name of a function and its arguments.
// Bytes are in hexadecimal, after a "=". The answer to each case is a line in the same form.

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "base/split_url.h"
#include "base/text.h"
#include "base/var.h"
#include "http/body_end.h"
#include "http/chunked_body.h"
#include "http/http_connection.h"
#include "proxy/http_proxy.h"

namespace {

using arguments = std::vector<std::string>;

std::string to_hex(const std::string& bytes) {
  std::string text = "=";
  char digits[4];
  for (char c : bytes) {
    snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    text += digits;
  }
  return text;
}

std::string from_hex(const std::string& text) {
  std::string bytes;
  for (size_t i = 1; i + 1 < text.size(); i += 2)
    bytes += static_cast<char>(strtol(text.substr(i, 2).c_str(), nullptr, 16));
  return bytes;
}

// The next value of a description in prefix form: "s=6162", "n1.5", "t", "f", "z", "[2" with two values after
// it, "{1" with one key and its value after it.
var parse_value(const arguments& words, size_t& at) {
  const std::string& word = words[at++];
  const std::string operand = word.substr(1);
  switch (word[0]) {
    case 's':
      return {from_hex(operand)};
    case 'n':
      return {strtod(operand.c_str(), nullptr)};
    case 't':
    case 'f':
      return {word[0] == 't'};
    case '[': {
      var list = var::array();
      for (long n = strtol(operand.c_str(), nullptr, 10); n > 0; n--) list.push(parse_value(words, at));
      return list;
    }
    case '{': {
      var object = var::object();
      for (long n = strtol(operand.c_str(), nullptr, 10); n > 0; n--) {
        const std::string key = from_hex(words[at++]);
        object.set(key, parse_value(words, at));
      }
      return object;
    }
    default:
      return {};
  }
}

std::string print_value(const arguments& words) {
  size_t at = 0;
  const var value = parse_value(words, at);
  base::arraylist<var::var_data*> visited;
  return to_hex(value.to_json_helper(visited, true)) + " " + to_hex(value.to_json_helper(visited, false));
}

// Logs the calls of its hooks, with what the hooks saw.
struct reporter : http_connection {
  std::string report;

  void note(const std::string& hook) {
    report += " " + hook;
    for (const std::string* s : {&head, &method, &target, &version, &path, &query, &cookie})
      report += " " + to_hex(*s);
    report += " " + std::to_string(content_length) + " " + std::to_string(content_received) + " " +
              std::to_string(request_length) + " " + std::to_string(keep_alive);
  }

  void on_headers() override { note("headers"); }
  void on_upgrade() override {
    note("upgrade");
    http_connection::on_upgrade();
  }
  void on_request() override { note("request"); }

  void on_data(char* data, int len) override {
    report += " data " + to_hex(std::string(data, static_cast<size_t>(len)));
    http_connection::on_data(data, len);
  }
};

// The arguments: the limit, or 0 for the usual one; whether upgrades are answered; the chunks.
std::string play_request(const arguments& words) {
  reporter c;
  const int limit = static_cast<int>(strtol(words[0].c_str(), nullptr, 10));
  if (limit > 0) c.max_request_length = limit;
  c.websocket_enabled = words[1] == "1";
  for (size_t i = 2; i < words.size(); i++) {
    std::string chunk = from_hex(words[i]);
    c.on_recv(&chunk[0], static_cast<int>(chunk.size()));
  }
  return "left " + to_hex(c.head) + " " + to_hex(c.content) + " " + std::to_string(c.upgraded) + c.report;
}

// The arguments are pieces of a body. The answer: how the body ends, and after how many bytes.
std::string parse_chunks(const arguments& words) {
  chunked_body body;
  size_t used = 0;
  for (const std::string& word : words) {
    const std::string piece = from_hex(word);
    used += body.parse(piece.data(), piece.size());
  }
  const char* const state = body.has_ended() ? "ended " : body.is_malformed() ? "malformed " : "open ";
  return state + std::to_string(used);
}

std::string end_of_body(const std::string& head) {
  switch (find_body_end(head)) {
    case body_end::by_length:
      return "by_length";
    case body_end::by_last_chunk:
      return "by_last_chunk";
    default:
      return "unknown";
  }
}

std::string run(const std::string& name, const arguments& words) {
  if (name == "chunks") return parse_chunks(words);
  if (name == "json") return print_value(words);
  if (name == "request") return play_request(words);
  if (name == "num") return base::num(strtod(words[0].c_str(), nullptr));
  const std::string bytes = from_hex(words[0]);
  if (name == "base64") return to_hex(base::base64(bytes));
  if (name == "sha1") return to_hex(base::sha1(bytes));
  if (name == "escape") return to_hex(base::escape(bytes, true)) + " " + to_hex(base::escape(bytes, false));
  if (name == "idn") return to_hex(split_url::utf8_to_idn(bytes));
  if (name == "header") return to_hex(http_connection::get_header(bytes, from_hex(words[1])));
  if (name == "body_end") return end_of_body(bytes);
  if (name == "copy_headers") return to_hex(http_proxy::copy_headers(bytes));
  return "unknown";
}

}  // namespace

int main() {
  // The lines that the code under test prints are not part of the answers.
  FILE* answers = fdopen(dup(STDOUT_FILENO), "w");
  if (!answers || !freopen("/dev/null", "w", stdout)) return 1;
  for (std::string line; std::getline(std::cin, line);) {
    std::istringstream text(line);
    std::string name;
    text >> name;
    arguments words;
    for (std::string word; text >> word;) words.push_back(word);
    fprintf(answers, "%s\n", run(name, words).c_str());
  }
  return fclose(answers) == 0 ? 0 : 1;
}

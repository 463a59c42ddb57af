/* noted_connection: an http_connection that notes which of its hooks ran, with what, and which fields they
 * saw. The unit tests have a recorder of their own, which needs their framework. */
#pragma once

#include <string>
#include <vector>

#include "http/http_connection.h"

/* The fields taken from the head of a request, in a connection or in a model. */
template <class C>
std::string noted_fields(const C& c) {
  std::string text;
  for (const std::string* field : {&c.method, &c.target, &c.version, &c.path, &c.query, &c.cookie})
    text += "[" + *field + "]";
  return text;
}

struct noted_connection : http_connection {
  std::vector<std::string> events;  // "headers", "data ...", "upgrade", "message ...", "request"
  std::string at_headers;           // the fields at the last on_headers or on_upgrade
  std::string at_request;           // the fields at the last on_request
  bool is_request_complete = false;
  bool stays_upgraded = false;

  std::string fields() const { return noted_fields(*this); }

  void on_headers() override {
    events.emplace_back("headers");
    at_headers = fields();
  }

  void on_data(char* data, int len) override {
    events.push_back("data " + std::string(data, static_cast<size_t>(len)));
    http_connection::on_data(data, len);
  }

  void on_upgrade() override {
    events.emplace_back("upgrade");
    at_headers = fields();
    if (!stays_upgraded) http_connection::on_upgrade();
  }

  void on_message() override {
    events.push_back("message " + message);
    http_connection::on_message();
  }

  void on_request() override {
    events.emplace_back("request");
    at_request = fields();
    is_request_complete = true;
  }
};

/* recorder: an http_connection that notes which of its hooks ran, with what, and which fields they saw.
 *
 * on_headers and on_request do nothing else. The other hooks then call the default hooks. If `stays_upgraded`
 * is set, on_upgrade does not call its default, and the connection stays open. */
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "http/http_connection.h"

/* The fields taken from the head of a request, ready to be compared. */
inline std::string request_line(const http_connection& c) {
  return testing::PrintToString(
      std::vector<std::string>{c.method, c.target, c.version, c.path, c.query, c.cookie});
}

/* All fields that are plain values. */
inline std::string all_fields(const http_connection& c) {
  return "headers_received " + std::to_string(c.headers_received) + "\nhead " +
         testing::PrintToString(c.head) + "\nwritten " + std::to_string(c.written) + "\nresponse_parts " +
         std::to_string(c.response_parts.count) + "\nmax_request_length " +
         std::to_string(c.max_request_length) + "\nrequest_length " + std::to_string(c.request_length) +
         "\ncontent_received " + std::to_string(c.content_received) + "\ncontent_length " +
         std::to_string(c.content_length) + "\ncontent " + testing::PrintToString(c.content) +
         "\nkeep_alive " + std::to_string(c.keep_alive) + "\nrequest line " + request_line(c) +
         "\nresponse_headers " + testing::PrintToString(c.response_headers) + "\nwebsocket_enabled " +
         std::to_string(c.websocket_enabled) + "\nupgraded " + std::to_string(c.upgraded) + "\nmessage " +
         testing::PrintToString(c.message) + "\nmax_message_length " + std::to_string(c.max_message_length) +
         "\nmax_frame_length " + std::to_string(c.max_frame_length) + "\nsubscriptions " +
         std::to_string(c.subscriptions.count) + "\n";
}

struct recorder : http_connection {
  std::vector<std::string> events;  // "headers", "data ...", "upgrade", "message ...", "request"
  std::string at_headers;           // request_line() at the last on_headers or on_upgrade
  std::string at_request;           // all_fields() at the last on_request
  std::string body;                 // everything that on_data got
  bool stays_upgraded = false;

  void on_headers() override {
    events.push_back("headers");
    at_headers = request_line(*this);
  }

  void on_data(char* data, int len) override {
    std::string run(data, static_cast<size_t>(len));
    events.push_back("data " + run);
    body += run;
    http_connection::on_data(data, len);
  }

  void on_upgrade() override {
    events.push_back("upgrade");
    at_headers = request_line(*this);
    if (!stays_upgraded) http_connection::on_upgrade();
  }

  void on_message() override {
    events.push_back("message " + message);
    http_connection::on_message();
  }

  void on_request() override {
    events.push_back("request");
    at_request = all_fields(*this);
  }

  /* How often exactly this event was noted. */
  long times(const std::string& event) const { return std::count(events.begin(), events.end(), event); }
};

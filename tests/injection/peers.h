/* peers: the clients and upstreams of a conversation.
 *
 * Each takes a step after every turn of the server, and none of them waits. They accept whatever happens to
 * their connections, and remember whether the exchange was complete. Wrong bytes make the test fail. */
#pragma once

#include <gtest/gtest.h>

#include <list>
#include <map>
#include <string>
#include <vector>

#include "tests/proxy/proxy_fixtures.h"
#include "tests/support/client.h"

struct exchange {
  std::string request;
  std::string reply;
};

/* A client. It sends a request when it has the whole response to the request before. */
class caller {
 public:
  enum class ending { stays, is_closed, closes, resets };

  caller(std::string name, int port, ending its_end, std::vector<exchange> exchanges)
      : name_(std::move(name)), wire_(port), end_(its_end), exchanges_(std::move(exchanges)) {}

  void step() {
    if (is_done_) return;
    is_done_ = !wire_.ok() || !wire_.poll();
    if (is_done_) return;
    while (sent_ < exchanges_.size() && wire_.received().size() >= replies(sent_).size())
      wire_.send(exchanges_[sent_++].request);
    if (end_ == ending::stays) is_done_ = wire_.received() == replies(exchanges_.size());
    if (end_ == ending::closes || end_ == ending::resets) leave_in_a_while();
  }

  const std::string& name() const { return name_; }

  /* It will do nothing more. */
  bool is_done() const { return is_done_; }

  /* It got everything, and its connection stayed open or was closed as it should be. */
  bool is_content() const {
    const bool is_closed_rightly = wire_.is_closed() == (end_ == ending::is_closed);
    return is_done_ && is_closed_rightly && wire_.received() == replies(exchanges_.size());
  }

  /* Expects that what came is the beginning of the expected bytes. The 502 may replace a response of which no
   * byte has come. */
  void expect_right_bytes() const {
    const std::string& got = wire_.received();
    bool is_right = replies(sent_).compare(0, got.size(), got) == 0;
    for (size_t i = 0; i < sent_; i++)
      is_right = is_right || (replies(i) + bad_gateway).compare(0, got.size(), got) == 0;
    EXPECT_TRUE(is_right) << name_ << " got " << got.size() << " bytes: " << got.substr(0, 500);
  }

  void close() {
    wire_.close();
    is_done_ = true;
  }

 private:
  static constexpr int rounds_before_leaving = 4;

  std::string replies(size_t count) const {
    std::string all;
    for (size_t i = 0; i < count; i++) all += exchanges_[i].reply;
    return all;
  }

  void leave_in_a_while() {
    if (++rounds_ < rounds_before_leaving) return;
    if (end_ == ending::resets)
      wire_.close_with_reset();
    else
      wire_.close();
    is_done_ = true;
  }

  std::string name_;
  client wire_;
  ending end_;
  std::vector<exchange> exchanges_;
  size_t sent_ = 0;
  int rounds_ = 0;
  bool is_done_ = false;
};

/* The upstream on one port. It answers the requests that it knows; no other request may come. */
class answering_upstream {
 public:
  std::map<std::string, std::string> replies;  // by the whole request
  bool closes = false;                         // after its first response

  int port() const { return door_.port(); }
  bool is_alone() const { return links_.empty(); }

  void step() {
    for (bool is_waiting = true; is_waiting;) {
      client next = door_.accept();
      is_waiting = next.ok();
      if (is_waiting) links_.push_back({std::move(next), 0, ""});
    }
    for (auto at = links_.begin(); at != links_.end();) {
      if (serve(*at))
        ++at;
      else
        at = links_.erase(at);
    }
  }

 private:
  struct link {
    client wire;
    size_t answered;  // how many of the received bytes were answered
    std::string unsent;
  };

  // False when the connection is over.
  bool serve(link& l) {
    const bool is_open = l.wire.poll();
    const std::string rest = l.wire.received().substr(l.answered);
    bool is_known = rest.empty();
    for (const auto& [request, reply] : replies) {
      is_known = is_known || rest.compare(0, rest.size(), request, 0, rest.size()) == 0;
      if (rest != request) continue;
      l.answered += rest.size();
      l.unsent += reply;
    }
    EXPECT_TRUE(is_known) << "the upstream got " << rest.substr(0, 500);
    l.unsent.erase(0, l.wire.send(l.unsent));
    return is_open && !(closes && l.answered > 0 && l.unsent.empty());
  }

  listener door_;
  std::list<link> links_;
};

/* conversation: clients and upstreams that use every path through the servers of a stage, all at once.
 *
 * On connections that are kept: two requests for the echo page, two for an unknown host, and two with bodies
 * for an upstream. One upstream closes in the middle of its response, and one refuses. One client resets in
 * the middle of an upload, one leaves in the middle of a head, and one is silent until it times out. At the
 * end the certificate has changed and no connection is left.
 *
 *     conversation during(here);           everybody connects
 *     during.play();                       from the first byte to the last close
 *     during.harmed()                      the names of the clients that did not get all they asked for */
#pragma once

#include <functional>
#include <list>
#include <string>

#include "tests/injection/peers.h"
#include "tests/injection/stage.h"

class conversation {
 public:
  static constexpr size_t usual_size = 20000;

  /* Responses of `size` bytes, and bodies of a fifth of it. */
  explicit conversation(stage& where, size_t size = usual_size)
      : stage_(where),
        most_rounds_(3000 + (faults::most_bytes() ? 20 * size : 0)),
        body_(random_bytes(size / 5)),
        page_(random_bytes(size, 2)) {
    map_hosts();
    using ending = caller::ending;
    join("echo", ending::stays, {ask_echo("/1"), ask_echo("/2?q")});
    join("nobody", ending::stays,
         {{request_to("nobody"), not_found}, {request_to("nobody", "/2"), not_found}});
    join("up", ending::stays, {ask(up_, "up", "/1", page_), ask(up_, "up", "/2", "short")});
    join("cut", ending::is_closed, {ask(cut_, "cut", "/", page_.substr(0, 1000))});
    join("down", ending::is_closed, {{request_to("down"), bad_gateway}});
    join("resets", ending::resets, {{leave_half(ask(up_, "up", "/upload", "").request), ""}});
    join("leaves", ending::closes, {{"GET / HTTP/1.1\r\nHost: ec", ""}});
    join("idle", ending::is_closed, {});
  }

  /* From the first byte to the last close. Expects that every client is finished, that no byte is wrong, and
   * that the servers have no connection left. Exceptions of a turn are passed on. */
  void play() {
    // One client is accepted a turn. The idle client must be accepted before the clock is set forward.
    size_t turns = 0;
    EXPECT_TRUE(serve_until([&] { return ++turns > callers_.size() && is_done_but(1); })) << waiting();
    for (caller& c : callers_)
      if (c.name() != "idle") note_and_close(c);
    faults::clock_offset() += 20;
    EXPECT_TRUE(serve_until([&] { return is_done_but(0); })) << waiting();
    note_and_close(callers_.back());
    EXPECT_TRUE(serve_until([&] { return stage_.connections() == 0 && up_.is_alone() && cut_.is_alone(); }))
        << stage_.connections() << " connections are left";
    stage_.change_files();
    faults::clock_offset() += 100;
    EXPECT_TRUE(serve_until([] { return sockets::num_ready() == 0; })) << "the servers are never idle";
  }

  /* The names of the clients that did not get all they asked for; without failures there is none. */
  const std::string& harmed() const { return harmed_; }
  int count_harmed() const { return count_harmed_; }

 private:
  void map_hosts() {
    base::hashmap<int>& hosts = reverse_proxy::hosts();
    hosts.set("echo", reverse_proxy::echo_port);
    hosts.set("up", up_.port());
    hosts.set("cut", cut_.port());
    hosts.set("down", down_.port());
    cut_.closes = true;
  }

  void join(const std::string& name, caller::ending end, std::vector<exchange> exchanges) {
    callers_.emplace_back(name, stage_.port(), end, std::move(exchanges));
  }

  static exchange ask_echo(const std::string& path) {
    const std::string request = request_to("echo", path);
    return {request, echo_page(request)};
  }

  // A request with a body, which `from` answers.
  exchange ask(answering_upstream& from, const std::string& host, const std::string& path,
               const std::string& reply) {
    from.replies[forwarded(host, path, length_of(body_), body_)] = reply;
    return {request_to(host, path, length_of(body_), body_), reply};
  }

  std::string leave_half(const std::string& request) const {
    return request.substr(0, request.size() - body_.size() / 2);
  }

  bool serve_until(const std::function<bool()>& done) {
    for (size_t round = 0; round < most_rounds_; round++) {
      stage_.turn();
      for (caller& c : callers_) c.step();
      up_.step();
      cut_.step();
      if (done()) return true;
    }
    return false;
  }

  bool is_done_but(int few) {
    int waiting = 0;
    for (caller& c : callers_) waiting += c.is_done() ? 0 : 1;
    return waiting <= few;
  }

  std::string waiting() {
    std::string names;
    for (caller& c : callers_)
      if (!c.is_done()) names += c.name() + " ";
    return "still waiting: " + names;
  }

  void note_and_close(caller& c) {
    c.expect_right_bytes();
    if (!c.is_content()) {
      harmed_ += c.name() + " ";
      count_harmed_++;
    }
    c.close();
  }

  stage& stage_;
  size_t most_rounds_;
  std::string body_;
  std::string page_;
  answering_upstream up_, cut_;
  refusing_port down_;
  std::list<caller> callers_;  // the idle one is the last
  std::string harmed_;
  int count_harmed_ = 0;
};

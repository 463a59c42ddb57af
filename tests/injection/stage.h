/* stage: the servers of one run, on a port that no other process gets. Faults hold only while the servers
 * start, take a turn or stop. The clock stands still unless the conversation sets it forward.
 *
 *     plain_stage here;                    or tls_stage, http_stage, faulty_tls_stage
 *     here.start(), here.turn(), here.stop()
 *                                          what the program does with its servers, under the faults
 *     here.port(), here.front()            the port and the server for the clients
 *     here.is_serving()                    whether clients can be served
 *     here.connections()                   how many connections all servers have
 *     here.change_files();                 there is a new certificate */
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "main/https.h"
#include "net/server.h"
#include "proxy/reverse_proxy.h"
#include "tests/proxy/proxy_fixtures.h"
#include "tests/support/faults.h"
#include "tests/support/turns.h"
#include "tests/tls/fake_openssl.h"
#include "tests/tls/temp_folder.h"

/* Faults hold as long as it lives. */
struct with_faults {
  with_faults() { faults::suspended() = false; }
  with_faults(const with_faults&) = delete;
  with_faults& operator=(const with_faults&) = delete;
  ~with_faults() { faults::suspended() = true; }
};

class stage {
 public:
  stage() {
    // Each run gets other seconds, because a second's look-ups are remembered during that second.
    static int64_t second = 1700000000;
    faults::frozen_clock() = second += 10000;
    faults::longest_wait_us() = 100;
    faults::suspended() = true;
    FD_ZERO(sockets::ready());
  }
  stage(const stage&) = delete;
  stage& operator=(const stage&) = delete;
  virtual ~stage() {
    http_proxy::g_server() = nullptr;
    base::hashmap<int>& hosts = reverse_proxy::hosts();
    while (hosts.count > 0) hosts.remove(std::string(*hosts.keys[0]));
    sockets::num_ready() = 0;
    faults::clear();
  }

  int port() const { return own_port_.port(); }

  /* The server to which the clients of a conversation connect. */
  virtual server_base& front() = 0;

  bool start() {
    with_faults on;
    return start_servers();
  }

  /* Whether clients are accepted, and not refused because of a failure at the start. */
  virtual bool is_serving() { return front().sock != -1; }

  /* A turn of the loop that drives the servers. */
  void turn() {
    with_faults on;
    take_turn_or_idle(servers_);
  }

  void stop() {
    with_faults on;
    for (server_base* s : servers_) s->stop();
  }

  /* Changes the files that the servers look at. */
  virtual void change_files() {}

  int connections() const {
    int count = 0;
    for (const server_base* s : servers_) count += s->connections.count;
    return count;
  }

 protected:
  virtual bool start_servers() {
    bool have_started = true;
    for (server_base* s : servers_) have_started = have_started && s->start();
    return have_started;
  }

  std::vector<server_base*> servers_;  // borrowed, in the order of their turns

 private:
  shared_port own_port_;
};

/* One plain server, which carries the upstream connections, too. */
class plain_stage : public stage {
 public:
  plain_stage() {
    servers_ = {&front_};
    http_proxy::g_server() = &front_;
  }
  server_base& front() override { return front_; }

 private:
  server<reverse_proxy> front_{port()};
};

/* A TLS server over a faked OpenSSL, and a plain server for the upstream connections. The fake and the
 * clients use plain text. */
class tls_stage : public stage {
 public:
  tls_stage() {
    servers_ = {&holder_, front_.get()};
    http_proxy::g_server() = &holder_;
  }
  ~tls_stage() override {
    with_faults on;
    front_.reset();  // before the fake
  }
  server_base& front() override { return *front_; }
  bool is_serving() override { return stage::is_serving() && front_->ctx; }
  void change_files() override { set_file_time(front_->crt_file, ++file_time_); }

 protected:
  // May be called again after a failure, or when the library gave no context.
  bool start_servers() override {
    if (!front_->ctx) https::create_context(*front_);
    for (server_base* s : servers_)
      if (s->sock == -1 && !s->start()) return false;
    return true;
  }

 private:
  int64_t file_time_ = 1000;
  fake_openssl tls_;
  temp_folder folder_;
  server<reverse_proxy> holder_{0};
  std::unique_ptr<ssl_server<reverse_proxy>> front_ = std::make_unique<ssl_server<reverse_proxy>>(
      port(), "key.pem", folder_.write("crt.pem", "-----BEGIN CERTIFICATE-----\n"));
};

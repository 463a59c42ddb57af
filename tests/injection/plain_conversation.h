/* plain_conversation: clients of a server without upstreams, one client for each kind of response. */
#pragma once

#include <cstdio>
#include <list>
#include <memory>
#include <string>

#include "http/http_connection.h"
#include "tests/injection/peers.h"
#include "tests/injection/stage.h"

/* The path selects the response: a page, a redirect, a file or a job's result. Other paths get the default
 * one. After an upgrade it stays open and echoes messages. */
struct answering_connection : http_connection {
  static const std::string& page() {
    static const std::string bytes = random_bytes(30000, 3);
    return bytes;
  }

  void on_headers() override {}
  void on_upgrade() override {}
  void on_request() override {
    if (path == "/page") {
      write("HTTP/1.1 200 OK\r\n", page());
    } else if (path == "/moved") {
      redirect("http://elsewhere/", false);
    } else if (path == "/file") {
      auto part = std::make_unique<response_part>();
      part->file = fmemopen(const_cast<char*>(page().data()), page().size(), "r");
      answer(std::move(part), "HTTP/1.1 200 OK\r\n" + length_of(page()));
    } else if (path == "/job") {
      auto part = std::make_unique<response_part>();
      part->thread = new job;  // deleted by the part
      part->thread->result = var("done");
      part->thread->done = true;
      answer(std::move(part), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n");
    } else {
      http_connection::on_request();
    }
  }

 private:
  void answer(std::unique_ptr<response_part> part, const std::string& lines) {
    write(lines, "");
    response_parts.push(part.get());
    static_cast<void>(part.release());
  }
};

class http_stage : public stage {
 public:
  http_stage() { servers_ = {&front_}; }
  server_base& front() override { return front_; }

 private:
  server<answering_connection> front_{port()};
};

class plain_conversation {
 public:
  explicit plain_conversation(stage& where) : stage_(where) {
    const std::string& page = answering_connection::page();
    const std::string ok = "HTTP/1.1 200 OK\r\n";
    const std::string head = "POST /echo HTTP/1.1\r\nHost: h\r\n" + length_of(body_);
    const std::string echo = head + "\r\n4000 bytes of content";
    const std::string moved =
        "<html>This page has temporarily moved to <a href=\"http://elsewhere/\">http://elsewhere/</a>"
        "<script>window.open('http://elsewhere/');</script></html>";
    join("page", {{request_to("h", "/page"), ok + length_of(page) + "\r\n" + page}});
    join("file", {{request_to("h", "/file"), ok + length_of(page) + "\r\n" + page}});
    join("job", {{request_to("h", "/job"), ok + "Transfer-Encoding: chunked\r\n\r\n4\r\ndone\r\n0\r\n\r\n"}});
    join("kept",
         {{request_to("h", "/moved"),
           "HTTP/1.1 302 Found\r\nLocation: http://elsewhere/\r\nContent-Type: text/html\r\n" +
               length_of(moved) + "\r\n" + moved},
          {head + "\r\n" + body_, ok + "Content-Type: text/plain\r\n" + length_of(echo) + "\r\n" + echo}});
    // The key and the accept value of RFC 6455, section 1.3, and the masked "Hello" of its section 5.7.
    join("socket", {{"GET /chat HTTP/1.1\r\nHost: h\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                     "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n",
                     "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                     "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\nContent-Length: 0\r\n\r\n"},
                    {"\x81\x85\x37\xfa\x21\x3d\x7f\x9f\x4d\x51\x58", "\x81\x05Hello"}});
  }

  /* Serves until every client has what it asked for, or was cut off, and is gone. */
  void play() {
    EXPECT_TRUE(serve_until([this] { return is_done(); })) << "somebody still waits";
    for (caller& c : callers_) {
      c.expect_right_bytes();
      if (!c.is_content()) {
        harmed_ += c.name() + " ";
        count_harmed_++;
      }
      c.close();
    }
    EXPECT_TRUE(serve_until([this] { return stage_.connections() == 0; }));
  }

  /* The names of the clients that did not get all they asked for. */
  const std::string& harmed() const { return harmed_; }
  int count_harmed() const { return count_harmed_; }

 private:
  const std::string body_ = random_bytes(4000);

  void join(const std::string& name, std::vector<exchange> exchanges) {
    callers_.emplace_back(name, stage_.port(), caller::ending::stays, std::move(exchanges));
  }

  template <class Done>
  bool serve_until(Done done) {
    for (int round = 0; round < 3000; round++) {
      stage_.turn();
      for (caller& c : callers_) c.step();
      if (done()) return true;
    }
    return false;
  }

  bool is_done() const {
    bool is = true;
    for (const caller& c : callers_) is = is && c.is_done();
    return is;
  }

  stage& stage_;
  std::list<caller> callers_;
  std::string harmed_;
  int count_harmed_ = 0;
};

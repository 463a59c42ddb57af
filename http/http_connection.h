/* http_connection: an accepted socket that speaks HTTP/1.1 (RFC 9112), and WebSocket after an upgrade.
 *
 * on_recv turns chunks into requests and calls the hooks: on_headers when the head is there, on_data for
 * the body, on_request at its end. A handler answers with write() or one of its relatives; the answer is
 * queued in pieces, which on_send hands to the server one at a time. Requests are not pipelined: whatever
 * follows a head belongs to its request until that is complete.
 *
 *     request.cpp     input: chunks, heads, bodies; reset(); what can be asked about a request
 *     response.cpp    output: answers, their parts, on_send()
 *     websocket.cpp   the handshake, frames both ways, channels; and the destructor, which leaves them
 *
 * Owns the queued parts. Lengths are bytes, times seconds. Counters are 32 bits wide and wrap.
 *
 * Between calls: (1) head holds the raw bytes until headers_received, then the request line and the header
 * lines, each ended by CRLF, without the empty line; (2) while headers_received is false, the fields taken
 * from the head are empty. */
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

#include "base/arraylist.h"
#include "base/hashmap.h"
#include "base/linkedlist.h"
#include "base/var.h"
#include "net/connection.h"

struct http_connection : connection {
  /* The result of work that is done elsewhere. Whoever sets `done` makes `result` visible first (a release
   * store, when that is another thread). Deleted by the part that holds it. The result must not be an empty
   * string: its chunk would be the last one already, and the five bytes of the last chunk that follows would
   * be read as the beginning of the next answer. Send "\n" or null instead. */
  struct job {
    bool done = false;
    var result;
    virtual ~job() = default;
  };

  /* One queued piece of output: a file if `file` is set, else a job's result if `thread` is, else `data`. */
  struct response_part {
    FILE* file = nullptr;     // owned; sent from where it stands
    double remaining = -1.0;  // bytes still to be read from it; negative: all; see send_file()
    std::string data;
    job* thread = nullptr;   // owned; its result is sent as one chunk and the last chunk
    int32_t timeout = 0;     // the connection's idle time-out from when a job's result is sent
    size_t sent = 0;         // bytes of `data` already handed out, for parts longer than the output buffer
    int64_t announced = -1;  // exactly these bytes of `file`, whatever `remaining` says; negative: not set

    response_part() = default;
    response_part(const response_part&) = delete;
    response_part& operator=(const response_part&) = delete;
    ~response_part();
  };

  /* What a WebSocket frame carries (RFC 6455, section 11.8). The last three are control frames. */
  enum opcodes {
    continuation_frame = 0,
    text_frame = 1,
    binary_frame = 2,
    close_frame = 8,
    ping_frame = 9,
    pong_frame = 10,
  };

  static constexpr int32_t usual_max_request_length = 104857600;  // bytes

  // The fields stand in a fixed order, in which the groups alternate.

  // This request; cleared by reset().
  bool headers_received = false;
  std::string head;
  bool written = false;  // the answer to this request is queued, or given up

  // The connection.
  base::linkedlist<response_part*> response_parts;  // owned; the answers under way, in order

  // This request; cleared by reset().
  int32_t max_request_length = usual_max_request_length;  // of head and body; 0 or less: no limit
  int32_t request_length = 0;                             // received so far, head and body
  int32_t content_received = 0;                           // of the body
  int32_t content_length = 0;                             // announced; 0 when it was not
  std::string content;  // the body as on_data gathers it; after an upgrade, the unread frames

  /* The connection. Cleared, it means three things, and nothing but a handler ever sets it again: (1) the
   * connection closes when all that is queued is sent and the request is answered, so write() adds no length;
   * (2) there is no next request: what still comes is more of this one's body, and calls on_request() again;
   * (3) after an upgrade, no more frames are read. */
  bool keep_alive = true;

  // This request; cleared by reset().
  std::string method;
  std::string target;   // as sent
  std::string version;  // "HTTP/1.1", say
  std::string path;     // the target up to its "?"
  std::string query;    // and behind it
  std::string cookie;
  std::string response_headers;  // lines that write() adds to the head, each ended by CRLF

  // WebSocket. reset() clears the message; it is never called after an upgrade.
  bool websocket_enabled = true;          // answer an upgrade; a proxy passes it on
  bool upgraded = false;                  // speaks WebSocket now, for good
  std::string message;                    // under way
  int32_t max_message_length = 10485760;  // bytes of payload, of a whole message
  int32_t max_frame_length = 1048576;     // and of a frame
  base::hashmap<int> subscriptions;       // the keys are its channels; the values mean nothing

  http_connection() = default;

  // Input.

  /* Takes the next bytes of the input, however it is cut, and calls the hooks for what is complete. Once a
   * request has become longer than max_request_length, every further chunk of it is dropped, with a line on
   * the console: it is then neither completed nor answered, and the connection stays until its time-out. */
  void on_recv(char* data, int len) override;

  /* The head of a request has been parsed; no byte of the body was delivered yet, though content_received
   * counts those that came with the head. Not called for a request for an upgrade that is answered here.
   * Prints info(true). */
  virtual void on_headers();

  /* A run of body bytes, counted already, which die after the call; there may be none. Gathers them in
   * `content`; after an upgrade reads the frames in it. */
  virtual void on_data(char* data, int len);

  /* The connection speaks WebSocket now. Closes it once the handshake is sent: override to stay. */
  virtual void on_upgrade();

  /* A WebSocket message is complete, in `message`, which is emptied afterwards. Echoes it as text. */
  virtual void on_message();

  /* The request is complete. Answers with the request's head and the length of its body, as text. An override
   * looks at `written` first and does nothing when it is set: the request has been answered already. A
   * refused upgrade was answered with a 400; and on a connection that is not kept alive, bytes that come
   * after the request call this again, once for each time that the socket is read. */
  virtual void on_request();

  /* Makes the fields of a request ready for the next one. keep_alive, the queued parts, the upgrade and the
   * subscriptions stay. Called by on_recv(), after on_request(), unless keep_alive is clear. */
  void reset();

  // Answers.

  /* Queues the answer to this request: `answer_head` is the status line and header lines, each ended by
   * CRLF, without the empty line. Content-Length is added on a kept-alive connection unless a length or a
   * transfer coding is there; `body` is left out for HEAD. Only the first call of a request counts. */
  void write(std::string answer_head, const std::string& body);

  /* Queues an answer whose body is a file: exactly the next `length` bytes of it, 0 or more, which the head
   * announces by a Content-Length that is added here. Takes over `file` and closes it in any case. What the
   * file has gained by then is not sent; when it has lost some of these bytes, a line is printed and the
   * connection ends after those that are left, with everything else that is queued. As write(), it sends no
   * body for HEAD, and counts only as the first answer of a request. */
  void write_file(std::string answer_head, FILE* file, int64_t length);

  /* Queues a 301 (permanent) or 302 answer that points at `url`, which is inserted as it is. The 301
   * announces that the connection closes; keep_alive decides. */
  void redirect(const std::string& url, bool permanent);

  /* Ends the connection without another answer, from any hook: what is queued is still sent, and the
   * connection is closed after it, or after a second in which no byte comes or goes. The hooks of a request
   * may run once more, with `written` set; WebSocket frames are no longer read. */
  void hang_up();

  /* Hands out one queued part, or a slice of it. False, to close, when none is queued, the request is
   * answered and keep_alive is clear; or when a file came short. */
  bool on_send(char* buf, int cap, int* len) override;

  // WebSocket.

  /* Consumes every complete frame at the front of `content`. A fault, which is printed, or a close frame ends
   * the connection and leaves `content` as it was, the frames already handled included. */
  void read_frames();

  /* Queues one unfragmented, unmasked WebSocket frame (RFC 6455, section 5.2) with one of the `opcodes`. At
   * 1 MiB or more it says so and queues the frame without its length. */
  void send_message(const std::string& payload, int opcode);

  /* Makes this connection a member of a channel, until it unsubscribes or ends. Twice is as once. Nothing
   * happens before the upgrade: the destructor of a connection that is not upgraded leaves no channel. */
  void subscribe(const std::string& channel);

  /* Ends the membership; nothing happens without one. */
  void unsubscribe(const std::string& channel);

  /* Queues one frame for each member of a channel, in the order in which they came, as send_message() does.
   * Members whose connection is about to close are left out: they may take no more, and what is queued for
   * them would pile up. */
  static void publish(const std::string& channel, const std::string& payload, int opcode);

  /* The connections of each channel, kept by subscribe() and unsubscribe(). A connection is in the list of a
   * channel exactly when the channel is a key of its `subscriptions`; no list is empty. Never deleted:
   * connections of a server that is a global end after main(). */
  static base::hashmap<base::arraylist<http_connection*>*>& channels();

  // What can be asked about a request.

  /* The value of the header field `name` in `text`, a request or response head; "" when there is none. The
   * first line that begins with `name` in any letter case counts, even if its name is longer; the two bytes
   * behind the name are skipped unseen. Wildcards in `name` work as in base::find. Throws std::out_of_range
   * when fewer than two bytes follow the name. */
  static std::string get_header(const std::string& name, const std::string& text);

  /* One line about the request for the console: peer, request line and, on demand, the user agent. A proxy
   * on this machine may name the peer with X-Forwarded-For. */
  std::string info(bool with_agent) const;

  /* The peer's address as a dotted quad. */
  std::string ip_text() const;

  /* get_header() and info() behind what is in the first argument already: a text that is built anew for each
   * request then keeps its memory. */
  static void append_header(std::string& to, std::string_view name, const std::string& text);
  void append_info(std::string& to, bool with_agent) const;

  // The end.

  /* Deletes the parts still queued and, after an upgrade, ends the connection's subscriptions. */
  ~http_connection() override;

 private:
  void receive_head(char* data, int len);
  void parse_head();
  void on_head(char* rest, int rest_length);
  void finish_request_maybe();
  void append_part(std::string data);
  bool send_file(response_part& part, char* buf, int cap, int* len);
  bool send_announced(response_part& part, char* buf, int cap, int* len);
  bool send_job(response_part& part, char* buf, int cap, int* len);
  bool send_data(response_part& part, char* buf, int cap, int* len);
  void pop_part();
  void start_websocket();
  void leave(const std::string& channel);
  bool on_frame(int opcode, bool is_final, const std::string& payload);
};

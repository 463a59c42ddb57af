/* http_connection: an accepted socket that speaks HTTP/1.1 (RFC 9112), and WebSocket after an upgrade.
 *
 * on_recv turns the incoming bytes into requests and calls the hooks: on_headers after the head, on_data for
 * the body, on_request at the end of the body. A handler answers with write(), write_file() or redirect().
 * The answer is queued in parts, which on_send hands to the server one at a time. Requests are not pipelined:
 * whatever follows a head belongs to its request until that request is complete.
 *
 *     request.cpp     input: chunks, heads, bodies; reset(); the questions about a request
 *     response.cpp    output: answers, their parts, on_send()
 *     websocket.cpp   the handshake, frames both ways, channels; the destructor, which leaves the channels
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
  /* The result of work that is done elsewhere. Whoever sets `done` makes `result` visible first; another
   * thread does so with a release store. The job is deleted by the part that holds it. The result must not be
   * an empty string: a chunk without bytes is already the last chunk, so the client would read the five bytes
   * of the real last chunk as the beginning of the next answer. Send "\n" or null instead. */
  struct job {
    bool done = false;
    var result;
    virtual ~job() = default;
  };

  /* One queued piece of output: a file if `file` is set, else a job's result if `thread` is, else `data`. */
  struct response_part {
    FILE* file = nullptr;     // owned; sent from its current position
    double remaining = -1.0;  // bytes still to be read from `file`; negative: all; see send_file()
    std::string data;
    job* thread = nullptr;   // owned; its result is sent as one chunk and the last chunk
    int32_t timeout = 0;     // the connection's idle time-out after a job's result is sent
    size_t sent = 0;         // bytes of `data` already handed out, for parts longer than the output buffer
    int64_t announced = -1;  // bytes of `file` still to be sent, instead of `remaining`; negative: not set

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

  // The order of the fields is fixed, so fields of the request and fields of the connection alternate.

  // This request; cleared by reset().
  bool headers_received = false;
  std::string head;      // see rule (1) above
  bool written = false;  // the answer to this request is queued, or there will be none

  // The connection.
  base::linkedlist<response_part*> response_parts;  // owned; the answers still to be sent, in order

  // This request; cleared by reset().
  int32_t max_request_length = usual_max_request_length;  // of head and body; 0 or less: no limit
  int32_t request_length = 0;                             // received so far, head and body
  int32_t content_received = 0;                           // of the body
  int32_t content_length = 0;                             // as announced; 0 without an announcement
  std::string content;  // the body as on_data gathers it; after an upgrade, the unread frames

  /* The connection. Once this is false, only a handler ever sets it to true again. While it is false, three
   * rules hold: (1) the connection closes when the request is answered and all queued bytes are sent, so
   * write() adds no length; (2) there is no next request: bytes that still come belong to this body, and
   * on_request() is called again each time such bytes are read; (3) after an upgrade, no more frames are
   * read. */
  bool keep_alive = true;

  // This request; cleared by reset(). A malformed head may have line ends in its method and its target.
  std::string method;
  std::string target;   // as sent
  std::string version;  // for example "HTTP/1.1"
  std::string path;     // the target up to its "?"
  std::string query;    // the target after its "?"
  std::string cookie;
  std::string response_headers;  // lines that write() adds to the head, each ended by CRLF

  // WebSocket. reset() clears `message`, and is never called after an upgrade.
  bool websocket_enabled = true;          // upgrades are answered here; a proxy clears it and passes them on
  bool upgraded = false;                  // speaks WebSocket from now on
  std::string message;                    // the message so far
  int32_t max_message_length = 10485760;  // bytes of payload in a whole message
  int32_t max_frame_length = 1048576;     // bytes of payload in a frame
  base::hashmap<int> subscriptions;       // the keys are its channels; the values mean nothing

  http_connection() = default;

  // Input.

  /* Takes the next bytes of the input, which may be cut anywhere, and calls the hooks for what is complete.
   * Once a request is longer than max_request_length, every further chunk of it is dropped with a line on the
   * console. That request is neither completed nor answered, and the connection stays until its time-out. */
  void on_recv(char* data, int len) override;

  /* The head of a request has been parsed. No byte of the body has been delivered yet, but content_received
   * already counts the bytes that came with the head. Not called for a request for an upgrade that is
   * answered here, even when the upgrade is refused. Prints info(true). */
  virtual void on_headers();

  /* The next bytes of the body, which are counted already; `len` may be 0. They are valid only during the
   * call. Gathers them in `content`; after an upgrade reads the frames in it. */
  virtual void on_data(char* data, int len);

  /* The connection speaks WebSocket now. The default closes it after the handshake is sent; an override may
   * keep it open. */
  virtual void on_upgrade();

  /* A whole WebSocket message is in `message`, which is emptied after the call. The default echoes it as
   * text. */
  virtual void on_message();

  /* The request is complete. The default answers with the request's head and the length of its body, as text.
   * An override looks at `written` first, and does nothing when it is set: the request has been answered
   * already. That happens in two cases. A refused upgrade was answered with a 400. On a connection that is
   * not kept alive, this is called again each time bytes after the request are read. */
  virtual void on_request();

  /* Clears the fields of a request for the next one. keep_alive, the queued parts, the upgrade and the
   * subscriptions stay. on_recv() calls it after on_request(), unless keep_alive is false. */
  void reset();

  // Answers.

  /* Queues the answer to this request: `answer_head` is the status line and header lines, each ended by
   * CRLF, without the empty line. Content-Length is added on a kept-alive connection, unless the head has a
   * length or a transfer coding. `body` is left out for HEAD. Only the first call for a request counts. */
  void write(std::string answer_head, const std::string& body);

  /* Queues an answer whose body is exactly the next `length` bytes of a file, 0 or more. Adds a
   * Content-Length that announces them. Takes `file` and closes it in any case. What is added to the file
   * later is not sent. When some of the announced bytes are missing, a line is printed, the connection ends
   * after the last byte that is there, and everything else that is queued is dropped. Like write(), it sends
   * no body for HEAD, and only the first answer to a request counts. */
  void write_file(std::string answer_head, FILE* file, int64_t length);

  /* Queues a 301 (permanent) or 302 answer that points at `url`, which is inserted as it is. The 301 says
   * that the connection closes, but only keep_alive decides whether it does. */
  void redirect(const std::string& url, bool permanent);

  /* Ends the connection without another answer, from any hook: what is queued is still sent, and the
   * connection closes after that, or after a second in which no byte comes or goes. The hooks of a request
   * may run once more, with `written` set. WebSocket frames are no longer read. */
  void hang_up();

  /* Hands out one queued part, or a slice of it. Returns false, which closes the connection, when no part is
   * queued, the request is answered and keep_alive is false; also when a file has lost announced bytes. */
  bool on_send(char* buf, int cap, int* len) override;

  // WebSocket.

  /* Consumes every complete frame at the front of `content`. A fault, which is printed, or a close frame ends
   * the connection. `content` then stays as it was before the call. */
  void read_frames();

  /* Queues one unfragmented, unmasked WebSocket frame (RFC 6455, section 5.2) with one of the `opcodes`. At
   * 1 MiB or more of payload, prints an error and queues the frame without its length. */
  void send_message(const std::string& payload, int opcode);

  /* Makes this connection a member of a channel, until it unsubscribes or ends. A second call changes
   * nothing. Nothing happens before the upgrade, because the destructor leaves the channels only after an
   * upgrade. */
  void subscribe(const std::string& channel);

  /* Ends the membership, if there is one. */
  void unsubscribe(const std::string& channel);

  /* Queues one frame for each member of a channel, in the order in which the members subscribed, as
   * send_message() does. Leaves out members whose connection is about to close: they may read no more, and
   * their frames would pile up. */
  static void publish(const std::string& channel, const std::string& payload, int opcode);

  /* The connections of each channel, kept by subscribe() and unsubscribe(). A connection is in the list of a
   * channel exactly when the channel is a key of its `subscriptions`. No list is empty. The map is never
   * deleted, because the connections of a global server end after main(). */
  static base::hashmap<base::arraylist<http_connection*>*>& channels();

  // Questions about a request.

  /* The value of the header field `name` in `text`, a request or response head; "" when there is none. The
   * first line that begins with `name` in any letter case counts, even if its name is longer. The two bytes
   * after the name are skipped, whatever they are. Wildcards in `name` work as in base::find. Throws
   * std::out_of_range when fewer than two bytes follow the name. */
  static std::string get_header(const std::string& name, const std::string& text);

  /* One line about the request for the console: peer, request line and, if asked for, the user agent. A proxy
   * on this machine may name the peer with X-Forwarded-For. */
  std::string info(bool with_agent) const;

  /* The peer's address as a dotted quad. */
  std::string ip_text() const;

  /* These append what get_header() and info() return to the first argument. So a string that is filled for
   * each request keeps its memory. */
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

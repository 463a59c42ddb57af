/* network: a network in memory, for a fuzzer that plays both the clients and the upstreams of a server.
 *
 * The calls into the system that the code under test makes are replaced when the fuzzer is linked. A stream
 * is one TCP connection, seen from the far end: the fuzzer says what the far end does, and reads what the
 * program did. A new descriptor gets the lowest free number, as in the system, but from first_descriptor on.
 *
 * A descriptor that is not open ends the process by fuzz::fail(), in whatever call or set it is used. */
#pragma once

#include <sys/select.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace network {

constexpr int none = -1;
constexpr int64_t unlimited = -1;

/* What happens to an outgoing connection. */
enum outcomes {
  established = 0,
  refused = 1,            // before connect() returns
  late_established = 2,   // pending until settle()
  late_refused = 3,       // pending until settle(), too
  never_established = 4,  // pending until it is closed
};

struct stream {
  int fd = none;  // while the program has it open
  int port = 0;   // of the server that the client came to, or of the upstream
  bool is_upstream = false;
  int owner = none;          // of an upstream: the client that the program was reading from when it connected
  int number = 0;            // of an upstream: how many upstreams its owner had before
  int last_upstream = none;  // of a client: the upstream that gets its bytes; none after a failed one

  // The far end.
  std::vector<int> bodies;     // of a client: the lengths of the stamped bodies that it has sent
  bool speaks_freely = false;  // a client has also sent other bytes
  std::string inbox;           // sent, but not read by the program yet
  int64_t stamped = 0;         // how many stamped bytes it has sent
  bool has_ended = false;      // it has closed its side
  bool is_reset = false;       // it has reset the connection
  bool is_urgent = false;      // there is urgent data
  int64_t rate = unlimited;    // bytes that it takes in a turn
  bool is_disturbed = false;   // it has done something that may lose bytes on their way

  // The program's end.
  outcomes outcome = established;
  int error = 0;              // errno that the next recv() or send() gives
  int64_t window = 0;         // bytes that it can still send in this turn
  std::string taken;          // read by the program, of a client
  int64_t stamped_taken = 0;  // how many of the bytes that it has read are stamped
  std::string received;       // written by the program
  bool is_closed = false;
};

struct state {
  std::vector<stream> streams;
  std::map<int, int> open;                  // descriptor to stream; listening sockets have none
  std::map<int, int> ports;                 // of listening descriptors
  std::map<int, std::vector<int>> waiting;  // streams that wait to be accepted, by port
  std::map<std::string, int> faults;        // the errno with which the next call of that name fails
  outcomes next_outcome = established;
  int first_descriptor = 100;
  int64_t begin = 1700000000;  // the clock at the beginning; `now` is the present time
  int64_t now = begin;
  bool is_trickling = false;  // recv() and send() move one byte a call
  bool is_disturbed = false;  // a call has failed after which the servers start again
  int64_t calls = 0;          // since the begin of the turn
  int ready = 0;              // what the last select() returned
};

state& net();

/* Starts with nothing open. */
void clear();

/* A client that connects to the server on `port`; returns its stream. */
int add_client(int port);

/* Begins a turn: the windows open again by their rates. */
void begin_turn();

/* Establishes or refuses the pending connections now. */
void settle();

/* The descriptors in a set. */
std::vector<int> members(const fd_set* set);

inline bool is_ours(int fd) {
  return fd >= 100;
}

}  // namespace network

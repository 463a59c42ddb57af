// Whole conversations on a network in memory. Clients and upstreams send, read slowly, close, reset and wait;
// calls fail and the clock jumps. The servers are those of the program, those of the examples, and one whose
// hooks throw.
//
// Input: a byte of flags, then operations, each a character followed by its operands; see step(). Operands
// that choose something count from '0'. Rules after every turn:
//
// - No set holds a closed descriptor, and every open descriptor belongs to one connection.
//
// - Every client has got what its upstreams sent, in order and without a gap, up to some point.
//
// - Every upstream has got the bodies that its client sent, in the same way.
//
// When clients and upstreams are quiet, the servers come to rest, and no byte is missing. When the clients
// have gone, no connection is left. After stop() no descriptor is open and every set is empty.

#include <filesystem>

#include "main/https.h"
#include "net/server.h"
#include "net/sockets.h"
#include "proxy/reverse_proxy.h"
#include "tests/fuzz/fuzz.h"
#include "tests/fuzz/network.h"
#include "tests/fuzz/programs.h"
#include "tests/fuzz/tls_stub.h"
#include "tests/support/turns.h"
#include "tls/ssl_server.h"

using fuzz::expect;
using network::net;
using network::stream;

namespace {

enum ports {
  relay_port = 80,
  forward_port = 81,
  redirect_port = 82,
  chat_port = 83,
  tls_port = 84,
  filter_port = 85,
  files_port = 86,
  throwing_port = 87,
};
constexpr int port_count = 8;

// Whether upstreams may send to the clients of this port. On the other ports the bytes are not checked.
bool is_proxy(int port) {
  return port != chat_port && port != files_port && port != throwing_port;
}

constexpr int most_streams = 40;
constexpr int turns_to_rest = 400;  // far more than any conversation of this size needs
constexpr int big_reply = 1300000;  // more than an output buffer and a read hold

// The bytes that the upstreams of a client send are stamps: they hold the number of the upstream and the
// position. Nobody else sends such bytes to a client of a proxy.
char stamp(const stream& upstream, int64_t position) {
  return static_cast<char>(0x80 | (upstream.number & 7) << 4 | (position & 15));
}

// The folder of the file server. It is kept, with the same files, for all conversations. One file is bigger
// than an output buffer, and one is empty.
void make_files() {
  char folder[] = "/tmp/mivo_fuzz_XXXXXX";
  root() = mkdtemp(folder);
  atexit([] { std::filesystem::remove_all(root()); });
  const struct {
    const char* name;
    size_t size;
  } files[] = {{"index.html", 5}, {"empty", 0}, {"big", big_reply}};
  for (const auto& file : files) {
    FILE* out = fopen((root() + "/" + file.name).c_str(), "wb");
    const std::string bytes(file.size, 'f');
    fwrite(bytes.data(), 1, bytes.size(), out);
    fclose(out);
  }
}

class conversation {
 public:
  explicit conversation(fuzz::input& in) : in_(in) {
    http_proxy::g_server() = &relay_;
    tls_.ctx = tls_stub::context();
    for (server_base* s : servers_) s->start();
  }

  void play(bool ends_in_order) {
    while (!in_.is_at_end()) step();
    if (ends_in_order) {
      calm_down();
      rest();
      check_completeness();
      leave();
    }
    for (server_base* s : servers_) s->stop();
    expect(net().open.empty(), "no descriptor is open after stop()");
    for (const fd_set* set : sets()) expect(network::members(set).empty(), "the sets are empty after stop()");
    expect(http_connection::channels().count == 0, "no channel is left without members");
  }

 private:
  fuzz::input& in_;
  server<reverse_proxy> relay_{relay_port};
  server<http_proxy> forward_{forward_port};
  redirect_server<reverse_proxy> redirect_{redirect_port};
  server<chat_connection> chat_{chat_port};
  ssl_server<reverse_proxy> tls_{tls_port, "no key", "no certificate"};
  server<filtering_proxy> filter_{filter_port};
  server<file_connection> files_{files_port};
  throwing_server throwing_{throwing_port};
  server_base* servers_[port_count] = {&relay_, &forward_, &redirect_, &chat_,
                                       &tls_,   &filter_,  &files_,    &throwing_};
  std::vector<size_t> parsed_;     // of each stream: how many of its received bytes are checked
  std::vector<size_t> body_;       // of each upstream: which of its client's bodies it is getting
  std::vector<int> source_;        // of each client: the upstream whose bytes it is getting
  std::vector<int64_t> position_;  // of each stream: the position of the next byte
  bool has_sent_big_reply_ = false;

  static std::vector<const fd_set*> sets() {
    return {sockets::all(), sockets::ready(), sockets::readable(), sockets::writable(), sockets::errors()};
  }

  int choice(int count) { return static_cast<uint8_t>(in_.byte() - '0') % count; }

  // A stream that is not closed, chosen by an operand; null when there is none.
  stream* choose(bool is_upstream) {
    std::vector<stream*> candidates;
    for (stream& s : net().streams) {
      if (s.is_upstream == is_upstream && !s.is_closed) candidates.push_back(&s);
    }
    const auto chosen = static_cast<uint8_t>(in_.byte() - '0');
    return candidates.empty() ? nullptr : candidates[chosen % candidates.size()];
  }

  // A lower-case operation is for a client, the same letter in upper case for an upstream.
  void step() {
    const char operation = static_cast<char>(in_.byte());
    switch (operation) {
      case 'n': {
        const int port = relay_port + choice(port_count);
        if (net().streams.size() >= most_streams) break;
        const int client = network::add_client(port);
        if (port == tls_port) upstream(client).is_disturbed = true;  // any byte may end its session
        break;
      }
      case 'c':
      case 'C':
        if (stream* s = choose(operation == 'C')) {
          s->speaks_freely = true;
          say(s, in_.field());
        }
        break;
      case 'p': {
        stream* s = choose(false);
        const bool is_first = choice(2) == 0;
        post(s, is_first ? "a" : "b", in_.byte() & 0x7F);
        break;
      }
      case 'S':
        send_stamped(choose(true), in_.byte());
        break;
      case 'B':
        if (!has_sent_big_reply_) send_stamped(choose(true), big_reply);
        has_sent_big_reply_ = true;
        break;
      case 'e':
      case 'E':
        if (stream* s = disturb(choose(operation == 'E'))) s->has_ended = true;
        break;
      case 'r':
      case 'R':
        reset(disturb(choose(operation == 'R')));
        break;
      case 'u':
      case 'U':
        if (stream* s = disturb(choose(operation == 'U'))) s->is_urgent = true;
        break;
      case 'w':
      case 'W':
        set_rate(choose(operation == 'W'), in_.byte());
        break;
      case 't':
        net().now += in_.byte();
        break;
      case 'T':
        net().now -= in_.byte();
        break;
      case 'k':
        net().next_outcome = static_cast<network::outcomes>(choice(5));
        break;
      case 'y':
        network::settle();
        break;
      case 'x':
        add_fault(choice(9));
        break;
      case 'i':
        net().is_trickling = !net().is_trickling;
        break;
      case '.':
        turn();
        break;
      default:  // does nothing: a changed byte must not change the meaning of the bytes after it
        break;
    }
  }

  // Sends bytes that cannot be taken for stamps. Where there are no upstreams, any bytes.
  static void say(stream* s, std::string text) {
    if (s->has_ended || s->is_reset) return;
    if (is_proxy(s->port) || s->is_upstream) {
      for (char& c : text) c = static_cast<char>(c & 0x7F);
    }
    s->inbox += text;
  }

  // A request whose body holds the positions in it.
  static void post(stream* s, const std::string& host, int length) {
    if (!s || s->port != relay_port || s->has_ended || s->is_reset) return;
    s->inbox +=
        "POST / HTTP/1.1\r\nHost: " + host + "\r\nContent-Length: " + std::to_string(length) + "\r\n\r\n";
    for (int i = 0; i < length; i++) s->inbox += static_cast<char>(0x80 | i);
    if (length > 0) s->bodies.push_back(length);
  }

  // Only for the first eight upstreams of a client, because a stamp has three bits for the number.
  static void send_stamped(stream* s, int count) {
    if (!s || s->has_ended || s->is_reset || s->number > 7) return;
    for (int i = 0; i < count; i++) s->inbox += stamp(*s, s->stamped++);
  }

  static stream* disturb(stream* s) {
    if (s) s->is_disturbed = true;
    return s;
  }

  static void reset(stream* s) {
    if (!s || s->is_reset) return;
    s->is_reset = true;
    s->inbox.clear();
    s->error = ECONNRESET;
  }

  static void set_rate(stream* s, int operand) {
    if (s) s->rate = operand > 200 ? network::unlimited : operand;
  }

  static void add_fault(int which) {
    static const struct {
      const char* call;
      int error;
    } faults[] = {{"socket", EMFILE}, {"accept4", EMFILE},     {"connect", ENETUNREACH},
                  {"recv", EINTR},    {"send", EAGAIN},        {"select", EINTR},
                  {"select", EBADF},  {"getsockopt", ENOBUFS}, {"bind", EADDRINUSE}};
    net().faults[faults[which].call] = faults[which].error;
  }

  void turn() {
    network::begin_turn();
    take_turn_or_idle(servers_);
    check_turn();
  }

  void check_turn() {
    expect(connection::selected() == nullptr, "no connection is selected between turns");
    for (const fd_set* set : sets()) {
      for (int fd : network::members(set))
        expect(net().open.count(fd) == 1, "no set holds a closed descriptor");
    }
    check_ownership();
    body_.resize(net().streams.size());
    parsed_.resize(net().streams.size());
    source_.resize(net().streams.size(), network::none);
    position_.resize(net().streams.size());
    for (size_t i = 0; i < net().streams.size(); i++) {
      stream& s = net().streams[i];
      if (s.is_upstream) {
        check_tunnel(s);
        check_bodies(i);
      } else if (is_proxy(s.port)) {
        check_relay(static_cast<int>(i));
      }
      if (s.is_closed && !s.is_upstream) check_delivery(static_cast<int>(i));
    }
  }

  // Every open descriptor belongs to one listening socket or one connection.
  void check_ownership() {
    std::map<int, int> owners;
    for (server_base* s : servers_) {
      if (s->sock != -1) owners[s->sock]++;
      int count = 0;
      for (auto* node = s->connections.head->next; node; node = node->next, count++) {
        const connection* conn = node->value;
        owners[conn->sock]++;
        expect(
            conn->out_pos >= 0 && (conn->out_len <= 0 || conn->out_pos + conn->out_len <= conn->out_capacity),
            "output is inside its buffer");
      }
      expect(count == s->connections.count, "a list has as many elements as it counts");
    }
    for (const auto& owner : owners) expect(owner.second == 1, "a descriptor has one owner");
    for (const auto& entry : net().open) expect(owners.count(entry.first) == 1, "a descriptor has an owner");
    expect(owners.size() == net().open.size(), "what is owned is open");
  }

  // A client gets the stamped bytes of its upstreams one upstream after the other, each from its beginning
  // and without a gap.
  void check_relay(int client) {
    const auto at = static_cast<size_t>(client);
    const std::string& received = net().streams[at].received;
    for (; parsed_[at] < received.size(); parsed_[at]++) {
      const char c = received[parsed_[at]];
      if (!(c & 0x80)) continue;
      if (source_[at] == network::none || c != stamp(upstream(source_[at]), position_[at])) {
        source_[at] = next_source(client, c);
        position_[at] = 0;
      }
      position_[at]++;
      expect(position_[at] <= upstream(source_[at]).stamped, "no upstream's byte is sent twice");
    }
  }

  static stream& upstream(int index) { return net().streams[static_cast<size_t>(index)]; }

  // The upstream whose first byte this is. It comes after the upstream whose bytes the client was getting.
  int next_source(int client, char c) {
    for (size_t i = static_cast<size_t>(source_[static_cast<size_t>(client)] + 1); i < net().streams.size();
         i++) {
      const stream& s = net().streams[i];
      if (s.is_upstream && s.owner == client && s.stamped > 0 && stamp(s, 0) == c) return static_cast<int>(i);
    }
    fuzz::fail("a client gets its upstreams' bytes in order");
  }

  // Whether the client's first request opens a tunnel. Then everything after its head belongs to the tunnel.
  static bool is_tunnel(const stream& client) {
    return client.port == forward_port && client.taken.compare(0, 8, "CONNECT ") == 0;
  }

  static std::string tunnelled(const stream& client) {
    const size_t end = client.taken.find("\r\n\r\n");
    return end == client.taken.npos ? "" : client.taken.substr(end + 4);
  }

  static void check_tunnel(const stream& s) {
    const stream& client = upstream(s.owner);
    if (!is_tunnel(client)) return;
    expect(s.number == 0, "a tunnel has one upstream");
    const std::string bytes = tunnelled(client);
    expect(bytes.compare(0, s.received.size(), s.received) == 0, "a tunnel passes on what the client sent");
  }

  // The bodies of a client that sends nothing else reach its upstreams in order and without a gap. Each goes
  // to one upstream, so only the last body that an upstream got may be incomplete.
  void check_bodies(size_t at) {
    const stream& s = net().streams[at];
    const stream& client = upstream(s.owner);
    if (client.speaks_freely || client.port != relay_port) return;
    for (; parsed_[at] < s.received.size(); parsed_[at]++) {
      const char c = s.received[parsed_[at]];
      if (!(c & 0x80)) continue;
      if ((c & 0x7F) == 0) {
        pass_body(at, client);
        position_[at] = 0;
      }
      expect((c & 0x7F) == position_[at]++, "a body reaches the upstream in order and without a gap");
    }
  }

  // Expects that the last body of an upstream is complete: it must be one of those that the client sent.
  void pass_body(size_t at, const stream& client) {
    if (position_[at] == 0) return;
    while (body_[at] < client.bodies.size() && client.bodies[body_[at]] != position_[at]) body_[at]++;
    expect(body_[at]++ < client.bodies.size(), "a body is complete before the next one comes");
  }

  // When the program ends a client's connection, the client has got all that was read from its upstream.
  void check_delivery(int client) {
    const stream& s = upstream(client);
    if (s.is_disturbed || net().is_disturbed || s.last_upstream == network::none) return;
    // An invalid host name is refused without a look-up. Without a look-up, the network does not notice that
    // the client has left its upstream.
    if (s.received.find("Unable to connect") != s.received.npos) return;
    const auto at = static_cast<size_t>(client);
    const bool is_current = source_[at] == s.last_upstream;
    const int64_t taken = upstream(s.last_upstream).stamped_taken;
    expect((is_current ? position_[at] : 0) == taken, "what was read from an upstream reaches the client");
  }

  // From here on no call fails, nobody is slow, and pending connections are established or refused.
  void calm_down() {
    net().faults.clear();
    net().is_trickling = false;
    for (stream& s : net().streams) {
      s.rate = network::unlimited;
      if (s.outcome == network::never_established) s.outcome = network::late_refused;
    }
    network::settle();
    net().next_outcome = network::established;
  }

  // Takes turns until nothing is ready twice in a row: the first such turn may have queued something.
  void rest() {
    for (int turns = 0, quiet = 0; quiet < 2; turns++) {
      expect(turns < turns_to_rest, "the servers come to rest");
      turn();
      quiet = sockets::num_ready() == 0 ? quiet + 1 : 0;
    }
  }

  void check_completeness() {
    for (size_t i = 0; i < net().streams.size(); i++) {
      const stream& s = net().streams[i];
      if (s.is_closed || s.fd == network::none || s.is_upstream) continue;
      check_delivery(static_cast<int>(i));
      if (s.last_upstream == network::none) continue;
      const stream& far = upstream(s.last_upstream);
      if (!far.is_closed && !s.speaks_freely && s.port == relay_port && !net().is_disturbed)
        pass_body(static_cast<size_t>(s.last_upstream), s);
      if (!is_tunnel(s)) continue;
      if (!far.is_closed)
        expect(far.received.size() == tunnelled(s).size(), "a tunnel passes on all that the client sent");
    }
  }

  // Without clients there are no connections, because an upstream connection ends with its client.
  void leave() {
    for (stream& s : net().streams) {
      if (!s.is_upstream && !s.is_closed) disturb(&s)->has_ended = true;
    }
    rest();
    for (const server_base* s : servers_) {
      if (s->sock != -1 && sockets::fits(s->sock))
        expect(s->connections.count == 0, "no connection is left when the clients have gone");
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const bool is_mapped = [] {
    reverse_proxy::hosts().set("a", 8001);
    reverse_proxy::hosts().set("b", 8002);
    reverse_proxy::hosts().set("e", reverse_proxy::echo_port);
    redirector::ssl_port() = 8443;
    tls_stub::install();
    blocked().set("blocked", 1);
    make_files();
    return true;
  }();
  fuzz::input in(data, size);
  const int flags = in.byte();
  network::clear();
  // If the descriptors start close to the end of the sets, only few clients fit.
  if (is_mapped && (flags & 1)) net().first_descriptor = FD_SETSIZE - 5 - (flags >> 4);
  {
    conversation c(in);
    c.play((flags & 2) == 0);
  }
  return 0;
}

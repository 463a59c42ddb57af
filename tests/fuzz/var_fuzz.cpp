// Values: built, shared, changed, printed, split and released, in any order.
//
// Input: operations on a list of values, each a byte followed by its operands. Rules: both forms of the JSON
// text differ only in blanks. Printing leaves no trace in a value. split and get agree with plain versions of
// them. The sanitizer checks that nothing leaks.

#include "base/var.h"

#include <cstring>

#include "tests/fuzz/fuzz.h"

using fuzz::expect;
using fuzz::expect_equal;

namespace {

constexpr size_t most_values = 64;
constexpr int most_containments = 24;  // of a container in another; a shared container is printed each time
constexpr size_t most_nesting = 50;

std::string without_blanks(const std::string& json) {
  std::string out;
  bool is_quoted = false;
  for (size_t i = 0; i < json.size(); i++) {
    const char c = json[i];
    if (is_quoted && c == '\\') {
      out += c;
      expect(++i < json.size(), "no escape is cut short");
    } else if (c == '"') {
      is_quoted = !is_quoted;
    }
    if (is_quoted || (json[i] != ' ' && json[i] != '\n')) out += json[i];
  }
  expect(!is_quoted, "quotes come in pairs");
  return out;
}

class player {
 public:
  explicit player(fuzz::input& in) : in_(in) {}

  ~player() { break_cycles(); }

  void play() {
    while (!in_.is_at_end()) {
      switch (in_.byte() % 12) {
        case 0:
          add(var(in_.field()));
          break;
        case 1:
          add(number());
          break;
        case 2:
          add(in_.byte() & 1 ? var(true) : in_.byte() & 1 ? var(false) : var());
          break;
        case 3:
          add_container(var::array());
          break;
        case 4:
          add_container(var::object());
          break;
        case 5:
          push_or_set();
          break;
        case 6:
          nest();
          break;
        case 7:
          any() = any();
          break;
        case 8:
          check_get(any(), static_cast<int8_t>(in_.byte()));
          break;
        case 9:
          check_split(any(), in_.field());
          break;
        case 10:
          check_print(any());
          break;
        default:
          any().unref();
      }
    }
    for (const var& v : values_) check_print(v);
  }

 private:
  fuzz::input& in_;
  std::vector<var> values_{1};
  std::vector<var> containers_;  // all containers, because a payload that contains itself is never freed
  int containments_ = 0;

  var& any() { return values_[in_.byte() % values_.size()]; }

  void add(const var& v) {
    if (values_.size() < most_values) values_.push_back(v);
  }

  void add_container(const var& v) {
    containers_.push_back(v);
    add(v);
  }

  var number() {
    double x = 0;
    char bytes[sizeof(x)];
    for (char& b : bytes) b = static_cast<char>(in_.byte());
    memcpy(&x, bytes, sizeof(x));
    return {x};
  }

  void push_or_set() {
    var& container = any();
    const var& x = any();
    if (x.kind > var::string_kind && ++containments_ > most_containments) return;
    if (container.kind == var::object_kind)
      container.set(in_.field(), x);
    else
      container.push(x);
  }

  // Wraps a scalar into many arrays, deeper than single operations would get.
  void nest() {
    var v = any();
    if (v.kind > var::string_kind || containers_.size() > most_values) return;
    for (size_t depth = in_.byte() % most_nesting; depth > 0; depth--) {
      var outer = var::array();
      outer.push(v);
      v = outer;
    }
    add(v);
    if (v.kind == var::array_kind) containers_.push_back(v);
  }

  static void check_print(const var& v) {
    base::arraylist<var::var_data*> visited;
    const std::string pretty = v.to_json_helper(visited, true);
    const std::string compact = v.to_json_helper(visited, false);
    expect(visited.count == 0, "the list of visited payloads is as it was");
    expect_equal(without_blanks(pretty), without_blanks(compact), "both forms differ only in blanks");
    if (v.kind != var::string_kind) expect_equal(v, pretty, "a value's text is its pretty JSON");
  }

  static void check_split(const var& v, const std::string& separators) {
    const std::string text = v;
    const var pieces = v.split(separators);
    std::string piece;
    int count = 0;
    for (size_t i = 0; i <= text.size(); i++) {
      if (i < text.size() && separators.find(text[i]) == text.npos) {
        piece += text[i];
        continue;
      }
      const var found = pieces.get(count++);
      expect(found.kind == var::string_kind, "there is a piece for every separator, and one more");
      expect_equal(found, piece.c_str(), "a piece ends at a separator or at a zero byte");
      piece.clear();
    }
    expect(pieces.get(count).kind == var::null_kind, "there are no more pieces");
  }

  static void check_get(const var& v, int i) {
    const var got = v.get(i);
    if (v.kind == var::string_kind && v.data) {
      const std::string text = v;
      const int at = i < 0 ? i + static_cast<int>(text.size()) : i;
      if (at < 0 || at >= static_cast<int>(text.size()))
        expect(got.kind == var::null_kind, "nothing is beyond the ends of a string");
      else
        expect_equal(got, std::string(1, text[static_cast<size_t>(at)]), "a string's element is one byte");
    } else if (v.kind < var::string_kind) {
      expect(got.kind == var::null_kind, "a scalar has no elements");
    }
  }

  // Empties all containers. containers_ still holds each of them, so none is freed while it is emptied.
  void break_cycles() {
    for (var& v : containers_) {
      if (v.kind == var::array_kind) {
        auto& list = *static_cast<base::arraylist<var*>*>(v.data->payload);
        for (; list.count > 0; list.pop()) delete list.data[list.count - 1];
      } else {
        auto& map = *static_cast<base::hashmap<var*>*>(v.data->payload);
        for (uint32_t i = 0; i < map.count; i++) v.set(*map.keys[i], var());
      }
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  fuzz::input in(data, size);
  player(in).play();
  return 0;
}

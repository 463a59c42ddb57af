// A var as JSON text.

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

#include "base/text.h"
#include "base/var.h"

/* Appends values to one text. It keeps a list of the arrays and objects being printed; it does not recurse
 * into them. */
class var::printer {
 public:
  printer(const base::arraylist<var_data*>& visited, bool pretty) : visited_(visited), pretty_(pretty) {}

  ~printer() {
    for (const frame& f : frames_) f.container->data->is_being_printed = false;
  }

  std::string print(const var& value) {
    begin(value);
    while (!frames_.empty()) {
      if (frames_.back().container->kind == array_kind)
        go_on_with_array(frames_.back());
      else
        go_on_with_object(frames_.back());
    }
    return std::move(out_);
  }

 private:
  struct frame {
    const var* container;
    size_t depth;  // the number of arrays and objects around it
    bool is_multi_line;
    uint32_t next = 0;  // element or key
  };

  const base::arraylist<var_data*>& visited_;  // the arrays and objects around the printed value
  const bool pretty_;
  const var missing_;  // printed in place of an element that is not there
  std::vector<frame> frames_;
  std::string out_;

  bool is_cycle(const var& value) const {
    if (value.kind < string_kind) return false;  // a number or a boolean holds no pointer
    if (value.data && value.data->is_being_printed) return true;
    for (uint32_t i = 0; i < visited_.count; i++) {
      if (visited_.data[i] == value.data) return true;
    }
    return false;
  }

  // Prints the whole of a scalar, or the opening of an array or object.
  void begin(const var& value) {
    if (is_cycle(value)) {
      out_ += "ERROR_CYCLE";
      return;
    }
    switch (value.kind) {
      case null_kind:
        out_ += "null";
        break;
      case number_kind:
        out_ += std::isfinite(value.number) ? base::num(value.number) : "null";
        break;
      case bool_kind:
        out_ += value.boolean ? "true" : "false";
        break;
      case string_kind:
        append_quoted(value.has_payload(string_kind) ? value.as_string() : "");
        break;
      case array_kind:
        begin_array(value);
        break;
      case object_kind:
        begin_object(value);
        break;
      default:
        break;
    }
  }

  void append_quoted(const std::string& s) { out_.append("\"").append(base::escape(s, true)).append("\""); }

  void begin_array(const var& value) {
    if (!value.has_payload(array_kind) || value.as_array().count == 0) {
      out_ += "[]";
      return;
    }
    push(value, pretty_ && is_array_of_arrays(value));
    out_ += frames_.back().is_multi_line ? "[\n" : "[ ";
  }

  void begin_object(const var& value) {
    if (!value.has_payload(object_kind) || value.as_object().count == 0) {
      out_ += "{}";
      return;
    }
    push(value, pretty_);
    const size_t depth = frames_.back().depth;
    if (pretty_ && depth > 0) out_.append("\n").append(2 * depth, ' ');  // on a line of its own
    out_ += pretty_ ? "{\n" : "{";
  }

  static bool is_array_of_arrays(const var& value) {
    const base::arraylist<var*>& list = value.as_array();
    return std::all_of(list.data, list.data + list.count,
                       [](const var* v) { return v && v->kind == array_kind; });
  }

  void push(const var& container, bool is_multi_line) {
    frames_.push_back({&container, visited_.count + frames_.size(), is_multi_line});
    container.data->is_being_printed = true;
  }

  void pop() {
    frames_.back().container->data->is_being_printed = false;
    frames_.pop_back();
  }

  // Prints the next element, or the closing bracket. `f` becomes invalid when the element gets a frame of its
  // own.
  void go_on_with_array(frame& f) {
    const base::arraylist<var*>& list = f.container->as_array();
    if (f.next == list.count) {
      if (f.is_multi_line)
        out_.append("\n").append(2 * f.depth, ' ').append("]");
      else
        out_ += " ]";
      pop();
      return;
    }
    if (f.next > 0) out_ += f.is_multi_line ? ",\n" : pretty_ ? ", " : ",";
    if (f.is_multi_line) out_.append(2 * f.depth + 2, ' ');
    const var* element = list.data[f.next++];
    begin(element ? *element : missing_);
  }

  void go_on_with_object(frame& f) {
    const base::hashmap<var*>& map = f.container->as_object();
    if (f.next == map.count) {
      if (pretty_) out_.append("\n").append(2 * f.depth, ' ');
      out_ += "}";
      pop();
      return;
    }
    if (f.next > 0) out_ += pretty_ ? ",\n" : ",";
    if (pretty_) out_.append(2 * f.depth + 2, ' ');
    const std::string& key = *map.keys[f.next++];
    append_quoted(key);
    out_ += pretty_ ? " : " : ":";
    const var* value = map.get(key);
    begin(value ? *value : missing_);
  }
};

std::string var::to_json_helper(base::arraylist<var_data*>& visited, bool pretty) const {
  return printer(visited, pretty).print(*this);
}

#include "base/var.h"

#include <algorithm>
#include <cmath>

#include "base/text.h"

var::var(int32_t data_kind, void* payload) : kind(data_kind), data(new var_data) {  // deleted by unref()
  data->payload = payload;  // deleted by destroy_payload()
}

var::var(const std::string& s) : var(string_kind, new std::string(s)) {}
var::var(const char* s) : var(std::string(s)) {}
var var::array() {
  return var(array_kind, new base::arraylist<var*>);
}
var var::object() {
  return var(object_kind, new base::hashmap<var*>);
}

var& var::operator=(const var& other) {
  if (this == &other) return *this;
  var keep(other);  // `other` may live inside the payload that is released here
  unref();
  ref(keep);
  return *this;
}

void var::push(const var& x) {
  if (has_payload(array_kind)) as_array().add(new var(x));  // deleted by destroy_payload()
}

void var::set(const std::string& key, const var& x) {
  if (!has_payload(object_kind)) return;
  base::hashmap<var*>& map = as_object();
  var* old = map.get(key);
  map.set(key, new var(x));  // deleted by destroy_payload(), or here when it is replaced
  delete old;
}

void var::ref(const var& other) {
  kind = other.kind;
  switch (kind) {
    case null_kind:
      data = nullptr;
      break;
    case number_kind:
      number = other.number;
      break;
    case bool_kind:
      boolean = other.boolean;
      break;
    default:
      data = other.data;
      if (data) data->refs++;
  }
}

void var::unref() {
  if (kind >= string_kind && data && data->refs-- == 1) {
    destroy_payload();
    delete data;
  }
  kind = null_kind;
  data = nullptr;
}

// Recursive: an array of arrays is released depth first.
void var::destroy_payload() {
  if (!data->payload) return;
  if (kind == array_kind) {
    base::arraylist<var*>& list = as_array();
    for (uint32_t i = 0; i < list.count; i++) delete list.data[i];
    delete &list;
  } else if (kind == object_kind) {
    base::hashmap<var*>& map = as_object();
    for (uint32_t i = 0; i < map.capacity; i++) {
      if (map.slots[i].key) delete map.slots[i].value;
    }
    delete &map;
  } else if (kind == string_kind) {
    delete &as_string();
  }
}

namespace {

// Turns an index that may count from the end into a position; false when nothing is there.
bool find_position(int i, size_t count, size_t& position) {
  int64_t at = i < 0 ? i + static_cast<int64_t>(count) : i;
  position = static_cast<size_t>(at);
  return at >= 0 && position < count;
}

}  // namespace

var var::get(int i) const {
  size_t at = 0;
  if (has_payload(string_kind)) {
    if (find_position(i, as_string().size(), at)) return var(std::string(1, as_string()[at]));
  } else if (has_payload(array_kind)) {
    base::arraylist<var*>& list = as_array();
    if (find_position(i, list.count, at) && list.data[at]) return var(*list.data[at]);
  } else if (has_payload(object_kind)) {
    base::hashmap<var*>& map = as_object();
    var* value = find_position(i, map.count, at) ? map.get(*map.keys[at]) : nullptr;
    if (value) return var(*value);
  }
  return var();
}

var var::split(const std::string& separators) const {
  const std::string s = *this;
  auto is_separator = [&](char c) { return separators.find(c) != std::string::npos; };
  var result = array();
  // Exactly as many as there will be pieces.
  result.as_array().reserve(1 + static_cast<uint32_t>(std::count_if(s.begin(), s.end(), is_separator)));
  for (size_t start = 0;;) {
    size_t hit = s.find_first_of(separators, start);
    result.push(var(s.substr(start, hit - start).c_str()));  // c_str(): up to the first zero byte
    if (hit == std::string::npos) return result;
    start = hit + 1;
  }
}

var::operator std::string() const {
  if (has_payload(string_kind)) return as_string();
  base::arraylist<var_data*> visited;
  return to_json_helper(visited, true);
}

namespace {

std::string quoted(const std::string& s) {
  return "\"" + base::escape(s, true) + "\"";
}

}  // namespace

std::string var::to_json_helper(base::arraylist<var_data*>& visited, bool pretty) const {
  if (kind >= string_kind) {  // the word of a number or a boolean is no pointer
    for (uint32_t i = 0; i < visited.count; i++) {
      if (visited.data[i] == data) return "ERROR_CYCLE";
    }
  }
  switch (kind) {
    case null_kind:
      return "null";
    case number_kind:
      return std::isfinite(number) ? base::num(number) : "null";
    case bool_kind:
      return boolean ? "true" : "false";
    case string_kind:
      return quoted(has_payload(kind) ? as_string() : "");
    case array_kind:
      return has_payload(kind) ? array_to_json(visited, pretty) : "[]";
    case object_kind:
      return has_payload(kind) ? object_to_json(visited, pretty) : "{}";
    default:
      return "";
  }
}

bool var::is_multi_line_array() const {
  base::arraylist<var*>& list = as_array();
  for (uint32_t i = 0; i < list.count; i++) {
    if (!list.data[i] || list.data[i]->kind != array_kind) return false;
  }
  return true;
}

std::string var::array_to_json(base::arraylist<var_data*>& visited, bool pretty) const {
  base::arraylist<var*>& list = as_array();
  if (list.count == 0) return "[]";
  const size_t depth = visited.count;
  const bool multi_line = pretty && is_multi_line_array();

  visited.add(data);
  std::string out = multi_line ? "[\n" : "[ ";
  for (uint32_t i = 0; i < list.count; i++) {
    if (i > 0) out += multi_line ? ",\n" : pretty ? ", " : ",";
    if (multi_line) out.append(2 * depth + 2, ' ');
    out += list.data[i] ? list.data[i]->to_json_helper(visited, pretty) : "null";
  }
  if (multi_line)
    out.append("\n").append(2 * depth, ' ').append("]");
  else
    out += " ]";
  visited.pop();
  return out;
}

std::string var::object_to_json(base::arraylist<var_data*>& visited, bool pretty) const {
  base::hashmap<var*>& map = as_object();
  if (map.count == 0) return "{}";
  const size_t depth = visited.count;
  const std::string indent = pretty ? std::string(2 * depth, ' ') : "";

  visited.add(data);
  std::string out;
  if (pretty && depth > 0) out = "\n" + indent;  // a nested object starts on a line of its own
  out += pretty ? "{\n" : "{";
  for (uint32_t i = 0; i < map.count; i++) {
    if (i > 0) out += pretty ? ",\n" : ",";
    if (pretty) out += indent + "  ";
    const std::string& key = *map.keys[i];
    out += quoted(key) + (pretty ? " : " : ":");
    var* value = map.get(key);
    out += value ? value->to_json_helper(visited, pretty) : "null";
  }
  if (pretty) out += "\n" + indent;
  out += "}";
  visited.pop();
  return out;
}

#include "base/var.h"

#include <algorithm>

var::var(kinds data_kind) : kind(data_kind), data(new var_data) {}  // deleted by unref()

// The payloads are deleted by destroy(). They are allocated last: when that fails, the var has no payload yet
// and is released as usual.
var::var(const std::string& s) : var(string_kind) {
  data->payload = new std::string(s);
}
var::var(const char* s) : var(std::string(s)) {}
var var::array() {
  var fresh(array_kind);
  fresh.data->payload = new base::arraylist<var*>;
  return fresh;
}
var var::object() {
  var fresh(object_kind);
  fresh.data->payload = new base::hashmap<var*>;
  return fresh;
}

var& var::operator=(const var& other) {
  if (this == &other) return *this;
  var keep(other);  // `other` may live inside the payload that is released here
  unref();
  ref(keep);
  return *this;
}

void var::push(const var& x) {
  if (!has_payload(array_kind)) return;
  auto* element = new var(x);  // deleted by unref()
  try {
    as_array().add(element);
  } catch (...) {  // no memory for its place
    delete element;
    throw;
  }
}

void var::set(const std::string& key, const var& x) {
  if (!has_payload(object_kind)) return;
  base::hashmap<var*>& map = as_object();
  var* old = map.get(key);
  auto* value = new var(x);  // deleted by unref(), or here when it is replaced
  try {
    map.set(key, value);
  } catch (...) {  // no memory for the key, or for its place
    delete value;
    throw;
  }
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

// Depth first: elements are released before the array or object that contains them. This is a loop, because
// recursion into 30,000 nested arrays would overflow the stack.
void var::unref() {
  var_data* current = let_go();
  while (current) {
    var* element = take_next_element(*current);
    if (!element) {
      var_data* outer = current->released_in;
      destroy(current);
      current = outer;
      continue;
    }
    var_data* inner = element->let_go();
    delete element;  // null by now
    if (!inner) continue;
    inner->released_in = current;
    current = inner;
  }
}

// Makes this var null. If nobody else shares the payload, returns its var_data, which the caller must
// destroy. Otherwise returns null.
var::var_data* var::let_go() {
  var_data* last = kind >= string_kind && data && data->refs-- == 1 ? data : nullptr;
  if (last) last->released_kind = kind;
  kind = null_kind;
  data = nullptr;
  return last;
}

// Hands over the next element of an array or object that is being released; null when there is none left. The
// elements of an array come in their order, those of an object in the order of the slots.
var* var::take_next_element(var_data& from) {
  if (!from.payload) return nullptr;
  if (from.released_kind == array_kind) {
    const auto& list = *static_cast<base::arraylist<var*>*>(from.payload);
    while (from.released < list.count) {
      if (var* element = list.data[from.released++]) return element;
    }
  } else if (from.released_kind == object_kind) {
    const auto& map = *static_cast<base::hashmap<var*>*>(from.payload);
    while (from.released < map.capacity) {
      const auto& slot = map.slots[from.released++];
      if (slot.key && slot.value) return slot.value;
    }
  }
  return nullptr;
}

// Frees a payload whose elements are gone.
void var::destroy(var_data* released) {
  if (released->released_kind == array_kind)
    delete static_cast<base::arraylist<var*>*>(released->payload);
  else if (released->released_kind == object_kind)
    delete static_cast<base::hashmap<var*>*>(released->payload);
  else if (released->released_kind == string_kind)
    delete static_cast<std::string*>(released->payload);
  delete released;
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
  // Room for exactly the pieces: one more than there are separators.
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

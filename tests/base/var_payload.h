/* var_payload: gives the payload of a var the type that belongs to its kind. */
#pragma once

#include <string>

#include "base/var.h"

inline std::string& string_in(const var& v) {
  return *static_cast<std::string*>(v.data->payload);
}

inline base::arraylist<var*>& list_in(const var& v) {
  return *static_cast<base::arraylist<var*>*>(v.data->payload);
}

inline base::hashmap<var*>& map_in(const var& v) {
  return *static_cast<base::hashmap<var*>*>(v.data->payload);
}

inline var array_of(std::initializer_list<var> elements) {
  var a = var::array();
  for (const auto& x : elements) a.push(x);
  return a;
}

struct member {
  std::string key;
  var value;
};

inline var object_of(std::initializer_list<member> members) {
  var o = var::object();
  for (const auto& m : members) o.set(m.key, m.value);
  return o;
}

/* var: a small dynamically typed value that prints itself as JSON.
 *
 * Null, numbers and booleans live inside the var. Strings, arrays and objects live in a var_data that several
 * vars share. `refs` counts these vars, and the last of them destroys the var_data. Arrays and objects own
 * the vars inside them. The counts are plain integers, so only one thread may use them. An object keeps the
 * insertion order of its keys.
 *
 * A payload that contains itself is allowed and prints as ERROR_CYCLE, but is never freed. */
#pragma once

#include <cstdint>
#include <string>

#include "base/arraylist.h"
#include "base/hashmap.h"

struct var {
  enum kinds : int32_t {
    null_kind = 0,
    number_kind = 1,
    bool_kind = 2,
    string_kind = 3,  // this kind and those with higher numbers hold a var_data, or null
    array_kind = 4,
    object_kind = 5,
  };

  struct var_data {
    uint32_t refs = 1;
    void* payload = nullptr;  // owned: std::string, base::arraylist<var*> or base::hashmap<var*>, by kind

    // For printing and releasing, which do not recurse: values may be nested too deeply for the stack.
    bool is_being_printed = false;
    int32_t released_kind = null_kind;
    uint32_t released = 0;            // elements, or slots, that are already released
    var_data* released_in = nullptr;  // the array or object that contained it; destroyed after it

    virtual ~var_data() = default;
  };

  int32_t kind = null_kind;
  union {
    double number;
    bool boolean;
    var_data* data = nullptr;
  };

  var() {}
  var(const std::string& s);
  var(const char* s);  // without it, a literal would become a boolean
  var(double x) : kind(number_kind), number(x) {}
  var(int x) : kind(number_kind), number(x) {}
  var(bool x) : kind(bool_kind), boolean(x) {}
  var(const var& other) { ref(other); }
  var& operator=(const var& other);
  ~var() { unref(); }

  /* A new empty array or object, which nobody else shares. */
  static var array();
  static var object();

  /* Appends a value that shares `x`'s payload. Does nothing if this is not an array. */
  void push(const var& x);

  /* Stores a value that shares `x`'s payload under `key`. Does nothing if this is not an object. */
  void set(const std::string& key, const var& x);

  /* Copies `other`'s value and shares its payload. The old value of this var is not released, so call this
   * only on a fresh or a released var. */
  void ref(const var& other);

  /* Releases the value, and frees the payload when nobody else shares it. The var is null afterwards. */
  void unref();

  /* The element at position `i`, counted from the end when `i` is negative: a one-byte string, the value of
   * the i-th key, or the i-th element of an array. Null when there is none. */
  var get(int i) const;

  /* Cuts this value's text at every byte that occurs in `separators`, and returns the pieces as an array of
   * strings. If the text has n such bytes, there are n + 1 pieces. A piece ends at its first zero byte. */
  var split(const std::string& separators) const;

  /* A string as it is; anything else as pretty JSON. */
  operator std::string() const;

  /* The value as JSON text (RFC 8259, except for zero bytes in strings and for ERROR_CYCLE). `visited` holds
   * the arrays and objects around this value that are being printed. The call does not change it. */
  std::string to_json_helper(base::arraylist<var_data*>& visited, bool pretty) const;

 private:
  explicit var(kinds data_kind);

  // Call these only after has_payload() has returned true for that kind.
  std::string& as_string() const { return *static_cast<std::string*>(data->payload); }
  base::arraylist<var*>& as_array() const { return *static_cast<base::arraylist<var*>*>(data->payload); }
  base::hashmap<var*>& as_object() const { return *static_cast<base::hashmap<var*>*>(data->payload); }

  bool has_payload(int32_t of_kind) const { return kind == of_kind && data && data->payload; }
  class printer;

  var_data* let_go();
  static var* take_next_element(var_data& from);
  static void destroy(var_data* released);
};

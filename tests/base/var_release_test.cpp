#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/var.h"
#include "tests/base/var_payload.h"

namespace {

using names = std::vector<std::string>;

// A payload that notes its name when it ends.
struct named_data : var::var_data {
  named_data(const std::string& name, names& log) : name_(name), log_(log) {}
  ~named_data() override { log_.push_back(name_); }

 private:
  const std::string name_;
  names& log_;
};

// A value whose end appears in `log` under `name`.
var named(int32_t kind, void* payload, const std::string& name, names& log) {
  var v;
  v.kind = kind;
  v.data = new named_data(name, log);
  v.data->payload = payload;
  return v;
}

var named_string(const std::string& name, names& log) {
  return named(var::string_kind, new std::string(name), name, log);
}

}  // namespace

TEST(var_release, array_ends_after_its_elements_which_end_from_the_first_to_the_last) {
  names log;
  var inner = named(var::array_kind, new base::arraylist<var*>, "inner", log);
  inner.push(named_string("c", log));
  inner.push(named_string("b", log));
  var outer = named(var::array_kind, new base::arraylist<var*>, "outer", log);
  outer.push(named_string("d", log));
  outer.push(inner);
  outer.push(named_string("a", log));
  inner.unref();
  EXPECT_EQ(log, names());
  outer.unref();
  EXPECT_EQ(log, (names{"d", "c", "b", "inner", "a", "outer"}));
}

TEST(var_release, object_ends_after_its_values_which_end_in_the_order_of_their_slots) {
  names log, expected;
  var object = named(var::object_kind, new base::hashmap<var*>, "object", log);
  for (const char* key : {"z", "a", "host", "m", "localhost", "q"}) object.set(key, named_string(key, log));

  const base::hashmap<var*>& map = map_in(object);
  names keys;
  for (uint32_t i = 0; i < map.count; i++) keys.push_back(*map.keys[i]);
  for (uint32_t i = 0; i < map.capacity; i++) {
    if (map.slots[i].key) expected.push_back(*map.slots[i].key);
  }
  ASSERT_NE(expected, keys) << "these keys cannot tell the order of slots from that of insertion";
  expected.push_back("object");

  object.unref();
  EXPECT_EQ(log, expected);
}

// It must be a loop: 100,000 nested calls do not fit on a stack.
TEST(var_release, of_containers_nested_deeper_than_a_stack_is_complete) {
  names log;
  var v = named_string("end", log);
  for (int i = 0; i < 100000; i++) {
    var outer = i % 2 == 1 ? var::object() : var::array();
    outer.push(v);
    outer.set("k", v);
    v = outer;
  }
  v.unref();
  EXPECT_EQ(log, names{"end"});
}

TEST(var_release, of_nested_containers_leaves_what_others_hold) {
  names log;
  var inner = named(var::array_kind, new base::arraylist<var*>, "inner", log);
  inner.push(named_string("a", log));
  var outer = named(var::array_kind, new base::arraylist<var*>, "outer", log);
  outer.push(inner);
  outer.push(named_string("b", log));
  outer.unref();
  EXPECT_EQ(log, (names{"b", "outer"}));
  inner.unref();
  EXPECT_EQ(log, (names{"b", "outer", "a", "inner"}));
}

TEST(var_release, container_without_content_ends_too) {
  for (int32_t kind : {4, 5}) {
    names log;
    var v = named(kind, nullptr, "shell", log);
    v.unref();
    EXPECT_EQ(log, names{"shell"}) << kind;
  }
}

TEST(var_release, content_of_an_unknown_kind_is_left_alone) {
  names log;
  std::string not_on_the_heap = "long enough to need memory of its own";
  var v = named(6, &not_on_the_heap, "unknown", log);
  v.unref();
  EXPECT_EQ(log, names{"unknown"});
  EXPECT_EQ(not_on_the_heap, "long enough to need memory of its own");
}

TEST(var_release, payload_of_an_unknown_kind_is_counted_too) {
  names log;
  var v = named(6, nullptr, "unknown", log);
  {
    var copy(v);
    EXPECT_EQ(v.data->refs, 2u);
    v.unref();
    EXPECT_EQ(log, names());
  }
  EXPECT_EQ(log, names{"unknown"});
}

#include "base/var.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/base/var_payload.h"

using namespace std::string_literals;

namespace {

// A payload that reports its end through the virtual destructor.
struct watched_data : var::var_data {
  explicit watched_data(int& ends) : ends_(ends) {}
  ~watched_data() override { ends_++; }

 private:
  int& ends_;
};

// Makes `v`, which must be null, hold a watched payload of the given kind.
void watch(var& v, int32_t kind, void* payload, int& ends) {
  v.kind = kind;
  v.data = new watched_data(ends);
  v.data->payload = payload;
}

void expect_null(const var& v) {
  EXPECT_EQ(v.kind, 0);
  EXPECT_EQ(v.data, nullptr);
}

void expect_string(const var& v, const std::string& text) {
  ASSERT_EQ(v.kind, 3);
  EXPECT_EQ(string_in(v), text);
}

// One value of every kind.
std::vector<var> values_of_all_kinds() {
  return {var(), var(2.5), var(true), var("text"), array_of({1}), object_of({{"k", 1}})};
}

}  // namespace

TEST(var, kinds_are_numbered_from_0_in_their_order) {
  static_assert(std::is_same_v<decltype(var::kind), int32_t>);
  const auto values = values_of_all_kinds();
  for (size_t i = 0; i < values.size(); i++) EXPECT_EQ(values[i].kind, static_cast<int32_t>(i));
}

TEST(var, consists_of_a_kind_and_one_word) {
  static_assert(sizeof(var) == 16);
  var v;
  EXPECT_EQ(static_cast<void*>(&v.kind), &v);
  EXPECT_EQ(reinterpret_cast<char*>(&v.data) - reinterpret_cast<char*>(&v), 8);
  EXPECT_EQ(static_cast<void*>(&v.number), &v.data);
  EXPECT_EQ(static_cast<void*>(&v.boolean), &v.data);
}

TEST(var_data, is_polymorphic_with_a_count_of_one_and_no_payload) {
  static_assert(std::has_virtual_destructor_v<var::var_data>);
  static_assert(std::is_same_v<decltype(var::var_data::refs), uint32_t>);
  var::var_data data;
  EXPECT_EQ(data.refs, 1u);
  EXPECT_EQ(data.payload, nullptr);
  EXPECT_LT(static_cast<void*>(&data.refs), static_cast<void*>(&data.payload));
}

TEST(var, starts_as_null) {
  expect_null(var());
}

TEST(var, of_a_string_holds_a_copy_of_its_own) {
  std::string text = "a\0b"s;
  var v(text);
  text = "changed";
  expect_string(v, "a\0b"s);
  EXPECT_EQ(v.data->refs, 1u);
}

TEST(var, literal_is_a_string_and_no_boolean) {
  expect_string(var("text"), "text");
}

TEST(var, of_numbers_and_booleans_holds_them_itself) {
  EXPECT_EQ(var(2.5).number, 2.5);
  EXPECT_EQ(var(-7).kind, 1);
  EXPECT_EQ(var(-7).number, -7.0);
  EXPECT_TRUE(var(true).boolean);
  EXPECT_FALSE(var(false).boolean);
}

TEST(var, new_containers_are_empty_and_unshared) {
  var a = var::array(), o = var::object();
  EXPECT_EQ(a.data->refs, 1u);
  EXPECT_EQ(list_in(a).count, 0u);
  EXPECT_EQ(o.data->refs, 1u);
  EXPECT_EQ(map_in(o).count, 0u);
}

TEST(var, ref_copies_scalars) {
  var number, boolean, null;
  number.ref(var(2.5));
  EXPECT_EQ(number.kind, 1);
  EXPECT_EQ(number.number, 2.5);
  boolean.ref(var(true));
  EXPECT_EQ(boolean.kind, 2);
  EXPECT_TRUE(boolean.boolean);
  null.number = 1;
  null.ref(var());
  expect_null(null);
}

TEST(var, ref_shares_payloads) {
  for (const var& original : {var("text"), array_of({1}), object_of({{"k", 1}})}) {
    const uint32_t refs = original.data->refs;
    var v;
    v.ref(original);
    EXPECT_EQ(v.kind, original.kind);
    EXPECT_EQ(v.data, original.data);
    EXPECT_EQ(v.data->refs, refs + 1);
  }
}

TEST(var, ref_of_a_missing_payload_copies_the_kind) {
  for (int32_t kind : {3, 4, 5}) {
    var empty, v;
    empty.kind = kind;
    v.ref(empty);
    EXPECT_EQ(v.kind, kind);
    EXPECT_EQ(v.data, nullptr);
  }
}

TEST(var, ref_does_not_release_what_was_held_before) {
  var holder("held"), other(holder);
  holder.ref(var(2.5));
  EXPECT_EQ(holder.number, 2.5);
  EXPECT_EQ(other.data->refs, 2u);
  other.data->refs--;  // the reference that `holder` forgot
}

TEST(var, unref_makes_every_kind_null) {
  for (var v : values_of_all_kinds()) {
    v.unref();
    expect_null(v);
    v.unref();
    expect_null(v);
  }
}

TEST(var, unref_of_a_missing_payload_makes_null) {
  for (int32_t kind : {3, 4, 5, 6, -1}) {
    var v;
    v.kind = kind;
    v.unref();
    expect_null(v);
  }
}

TEST(var, payload_lives_until_its_last_var_lets_go) {
  int ends = 0;
  var a;
  watch(a, 3, new std::string("text"), ends);
  var b(a), c(b);
  EXPECT_EQ(a.data->refs, 3u);
  a.unref();
  EXPECT_EQ(b.data->refs, 2u);
  b.unref();
  EXPECT_EQ(ends, 0);
  expect_string(c, "text");
  c.unref();
  EXPECT_EQ(ends, 1);
}

TEST(var, destructor_lets_go) {
  int ends = 0;
  {
    var v;
    watch(v, 3, new std::string("text"), ends);
  }
  EXPECT_EQ(ends, 1);
}

TEST(var, string_without_content_and_unknown_kinds_are_released_too) {
  for (int32_t kind : {3, 6, 1000}) {
    int ends = 0;
    var v;
    watch(v, kind, nullptr, ends);
    v.unref();
    EXPECT_EQ(ends, 1) << kind;
    expect_null(v);
  }
}

TEST(var, releasing_a_container_releases_its_elements) {
  var shared("shared");
  var array = array_of({shared, array_of({shared}), object_of({{"k", shared}})});
  var object = object_of({{"a", shared}, {"b", array}});
  EXPECT_EQ(shared.data->refs, 5u);
  object.unref();
  EXPECT_EQ(shared.data->refs, 4u);
  array.unref();
  EXPECT_EQ(shared.data->refs, 1u);
}

TEST(var, container_with_missing_elements_is_released) {
  var shared("shared");
  var array = array_of({shared}), object = object_of({{"a", shared}});
  list_in(array).add(nullptr);
  map_in(object).set("b", nullptr);
  array.unref();
  object.unref();
  EXPECT_EQ(shared.data->refs, 1u);
}

TEST(var, inner_container_dies_with_the_outer_one) {
  int outer_ends = 0, inner_ends = 0;
  var inner, outer;
  watch(inner, 4, new base::arraylist<var*>, inner_ends);
  watch(outer, 4, new base::arraylist<var*>, outer_ends);
  outer.push(inner);
  inner.unref();
  EXPECT_EQ(inner_ends, 0);
  outer.unref();
  EXPECT_EQ(inner_ends, 1);
  EXPECT_EQ(outer_ends, 1);
}

TEST(var, copies_share_and_assignment_releases) {
  int ends = 0;
  var a, b("other");
  watch(a, 3, new std::string("text"), ends);
  var copy(a);
  EXPECT_EQ(copy.data, a.data);
  a = b;
  EXPECT_EQ(a.data, b.data);
  EXPECT_EQ(b.data->refs, 2u);
  EXPECT_EQ(ends, 0);
  copy = 1;
  EXPECT_EQ(ends, 1);
  EXPECT_EQ(copy.number, 1.0);
}

TEST(var, is_assigned_itself_or_its_own_element) {
  var v = array_of({array_of({"inner"})});
  const var& self = v;
  v = self;
  EXPECT_EQ(v.data->refs, 1u);
  v = *list_in(v).data[0];
  EXPECT_EQ(list_in(v).count, 1u);
  v = v.get(0);
  expect_string(v, "inner");
}

TEST(var, push_and_set_share_the_payload_and_need_their_kind) {
  var shared("shared");
  var array = var::array(), object = var::object();
  array.push(shared);
  object.set("k", shared);
  EXPECT_EQ(array.get(0).data, shared.data);
  EXPECT_EQ(object.get(0).data, shared.data);
  for (var v : values_of_all_kinds()) {
    if (v.kind != var::array_kind) v.push(shared);
    if (v.kind != var::object_kind) v.set("k", shared);
  }
  EXPECT_EQ(shared.data->refs, 3u);
}

TEST(var, setting_a_key_again_releases_its_old_value) {
  var first("first");
  var object = object_of({{"a", first}, {"b", 2}});
  object.set("a", 1);
  EXPECT_EQ(first.data->refs, 1u);
  EXPECT_EQ(object.get(0).number, 1.0);
  object.set("b", object.get(1));
  EXPECT_EQ(object.get(1).number, 2.0);
  EXPECT_EQ(map_in(object).count, 2u);
}

TEST(var, key_is_set_to_its_own_old_value) {
  var object = object_of({{"a", "text"}});
  object.set("a", *map_in(object).get("a"));
  expect_string(object.get(0), "text");
  EXPECT_EQ(map_in(object).get("a")->data->refs, 1u);
}

TEST(var, get_counts_from_either_end) {
  const var array = array_of({10, 11, 12});
  const var object = object_of({{"x", 10}, {"a", 11}, {"m", 12}});  // in the order of their insertion
  const int found_at[] = {-3, -2, -1, 0, 1, 2};
  for (int i : found_at) {
    const double expected = 10 + (i < 0 ? i + 3 : i);
    EXPECT_EQ(array.get(i).number, expected) << i;
    EXPECT_EQ(object.get(i).number, expected) << i;
    const var letter = var("xyz").get(i);
    expect_string(letter, std::string(1, "xyz"[i < 0 ? i + 3 : i]));
  }
}

TEST(var, get_reaches_the_far_end_of_a_long_value) {
  const int length = 70000;
  const var text("a" + std::string(length - 1, 'z'));
  var array = var::array();
  for (int i = 0; i < length; i++) array.push(i);
  expect_string(text.get(-length), "a");
  expect_null(text.get(-length - 1));
  EXPECT_EQ(array.get(-length).number, 0.0);
  EXPECT_EQ(array.get(length - 1).number, length - 1.0);
  expect_null(array.get(-length - 1));
}

TEST(var, get_outside_of_the_value_is_null) {
  for (const var& v : {var("xyz"), array_of({1, 2, 3}), object_of({{"a", 1}, {"b", 2}, {"c", 3}})}) {
    for (int i : {-4, 3, 4, INT_MAX, INT_MIN}) expect_null(v.get(i));
  }
  for (const var& v : {var(""), var::array(), var::object()}) {
    for (int i : {-1, 0, 1}) expect_null(v.get(i));
  }
}

TEST(var, get_of_a_scalar_is_null) {
  for (const var& v : {var(), var(12), var(true)}) {
    for (int i : {-1, 0, 1}) expect_null(v.get(i));
  }
}

TEST(var, get_of_a_missing_payload_or_of_an_unknown_kind_is_null) {
  for (int32_t kind : {3, 4, 5, 6, -1}) {
    var v;
    v.kind = kind;
    for (int i : {-1, 0, 1}) expect_null(v.get(i));
  }
  for (int32_t kind : {3, 4, 5}) {
    int ends = 0;
    var v;
    watch(v, kind, nullptr, ends);
    for (int i : {-1, 0, 1}) expect_null(v.get(i));
  }
}

TEST(var, push_and_set_do_nothing_without_a_payload) {
  for (int32_t kind : {4, 5}) {
    var v;
    v.kind = kind;
    v.push(1);
    v.set("k", 1);
    EXPECT_EQ(v.kind, kind);
    EXPECT_EQ(v.data, nullptr);
  }
}

TEST(var, get_of_a_missing_element_is_null) {
  var array = array_of({1}), object = object_of({{"a", 1}});
  list_in(array).add(nullptr);
  map_in(object).set("b", nullptr);
  expect_null(array.get(1));
  expect_null(object.get(1));
}

TEST(var, get_of_a_string_is_one_byte_of_any_value) {
  const var v("a\0\xff"s);
  EXPECT_NE(v.get(0).data, v.data);
  EXPECT_EQ(v.get(0).data->refs, 1u);
  expect_string(v.get(1), "\0"s);
  expect_string(v.get(2), "\xff");
}

TEST(var, what_get_returns_outlives_its_container) {
  var element;
  {
    var object = object_of({{"list", array_of({"deep"})}});
    element = object.get(0);
    EXPECT_EQ(element.data->refs, 2u);
  }
  EXPECT_EQ(element.data->refs, 1u);
  expect_string(element.get(0), "deep");
}

namespace {

std::vector<std::string> pieces(const var& v, const std::string& separators) {
  const var list = v.split(separators);
  std::vector<std::string> out;
  EXPECT_EQ(list.kind, 4);
  EXPECT_EQ(list_in(list).capacity, list_in(list).count);
  for (uint32_t i = 0; i < list_in(list).count; i++) {
    EXPECT_EQ(list_in(list).data[i]->kind, 3);
    out.push_back(string_in(*list_in(list).data[i]));
  }
  return out;
}

using strings = std::vector<std::string>;

}  // namespace

TEST(var_split, cuts_at_every_separator_and_keeps_empty_pieces) {
  const struct {
    std::string text, separators;
    strings expected;
  } rows[] = {
      {"a.b..c", ".", {"a", "b", "", "c"}},
      {"", ".", {""}},
      {".", ".", {"", ""}},
      {".a.", ".", {"", "a", ""}},
      {"abc", ".", {"abc"}},
      {"a.b", "", {"a.b"}},
      {"a.b,c;d", ".,", {"a", "b", "c;d"}},  // a set of bytes, not a sequence
      {"a,.b", ".,", {"a", "", "b"}},
      {"caf\xc3\xa9.x", ".", {"caf\xc3\xa9", "x"}},
      {std::string(70, 'x') + "." + std::string(70, 'y'), ".", {std::string(70, 'x'), std::string(70, 'y')}},
  };
  for (const auto& row : rows) EXPECT_EQ(pieces(var(row.text), row.separators), row.expected) << row.text;
}

TEST(var_split, piece_ends_at_its_first_zero_byte) {
  EXPECT_EQ(pieces(var("a\0b.c\0\0d"s), "."), (strings{"a", "c"}));
  EXPECT_EQ(pieces(var("\0a.b"s), "."), (strings{"", "b"}));
}

TEST(var_split, zero_byte_can_be_a_separator) {
  EXPECT_EQ(pieces(var("a\0b"s), "\0"s), (strings{"a", "b"}));
}

TEST(var_split, value_that_is_no_string_is_split_as_its_json_text) {
  EXPECT_EQ(pieces(var(1.5), "."), (strings{"1", "5"}));
  EXPECT_EQ(pieces(var(), "u"), (strings{"n", "ll"}));
  EXPECT_EQ(pieces(array_of({1, 2}), ","), (strings{"[ 1", " 2 ]"}));
}

TEST(var_split, leaves_its_value_as_it_was) {
  const var v("a.b");
  v.split(".");
  expect_string(v, "a.b");
}

TEST(var_split, many_pieces_are_all_there) {
  const auto all = pieces(var(std::string(9999, '.')), ".");
  EXPECT_EQ(all, strings(10000));
}

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <utility>

#include "base/var.h"
#include "tests/base/var_payload.h"

using namespace std::string_literals;

namespace {

std::string json(const var& v, bool pretty) {
  base::arraylist<var::var_data*> visited;
  std::string text = v.to_json_helper(visited, pretty);
  EXPECT_EQ(visited.count, 0u) << "left on the list of visited payloads";
  EXPECT_TRUE(!visited.data || !visited.data[0]);
  return text;
}

std::string pretty(const var& v) {
  return json(v, true);
}

std::string compact(const var& v) {
  return json(v, false);
}

std::string as_text(const var& v) {
  return v;
}

// Removes the reference to itself from a container, which would never be freed otherwise.
void break_cycle(const var& container) {
  if (container.kind == var::array_kind) {
    var* last = list_in(container).data[list_in(container).count - 1];
    list_in(container).pop();
    delete last;
  } else {
    var* last = map_in(container).get("self");
    map_in(container).remove("self");
    delete last;
  }
}

}  // namespace

TEST(var_json, scalars_print_the_same_in_both_modes) {
  const double infinity = std::numeric_limits<double>::infinity();
  const double largest = std::numeric_limits<double>::max();
  const std::pair<var, std::string> rows[] = {
      {var(), "null"},
      {var(2.5), "2.5"},
      {var(7.0), "7"},
      {var(-0.0), "-0"},
      {var(1e20), "100000000000000000000"},
      {var(1234567.5), "1.23457e+06"},
      {var(std::nan("")), "null"},
      {var(infinity), "null"},
      {var(-infinity), "null"},
      {var(true), "true"},
      {var(false), "false"},
      {var(""), "\"\""},
      {var("text"), "\"text\""},
      {var::array(), "[]"},
      {var::object(), "{}"},
  };
  for (const auto& [value, text] : rows) {
    EXPECT_EQ(pretty(value), text);
    EXPECT_EQ(compact(value), text);
  }
  EXPECT_EQ(pretty(var(largest)).size(), 309u);
}

TEST(var_json, string_is_escaped_as_json) {
  EXPECT_EQ(pretty(var("a\"\\\n\0\x01\xc3\xa9\xf0\x9f\x98\x80\xff"s)),
            "\"a\\\"\\\\\\n\\0\\u0001\\u00e9\\ud83d\\ude00\\uffff\"");
}

TEST(var_json, missing_payload_prints_as_an_empty_value) {
  const std::pair<int32_t, std::string> rows[] = {{3, "\"\""}, {4, "[]"}, {5, "{}"}};
  for (const auto& [kind, text] : rows) {
    var v;
    v.kind = kind;
    EXPECT_EQ(pretty(v), text);
    EXPECT_EQ(compact(v), text);
    EXPECT_EQ(as_text(v), text) << "only a string with a payload is raw";
  }
}

TEST(var_json, unknown_kind_prints_nothing) {
  for (int32_t kind : {6, 1000, -1}) {
    var v;
    v.kind = kind;
    EXPECT_EQ(pretty(v), "") << kind;
    EXPECT_EQ(as_text(v), "") << kind;
  }
}

TEST(var_json, text_of_a_string_is_raw) {
  EXPECT_EQ(as_text(var("a\"\0\n\xff"s)), "a\"\0\n\xff"s);
}

TEST(var_json, text_of_anything_else_is_pretty_json) {
  EXPECT_EQ(as_text(var(5)), "5");
  EXPECT_EQ(as_text(var()), "null");
  EXPECT_EQ(as_text(array_of({"a", 2})), "[ \"a\", 2 ]");
  EXPECT_EQ(as_text(object_of({{"a", 1}})), "{\n  \"a\" : 1\n}");
}

TEST(var_json, array_has_a_blank_inside_its_brackets_in_both_modes) {
  EXPECT_EQ(pretty(array_of({1, 2, 3})), "[ 1, 2, 3 ]");
  EXPECT_EQ(compact(array_of({1, 2, 3})), "[ 1,2,3 ]");
  EXPECT_EQ(pretty(array_of({var()})), "[ null ]");
}

TEST(var_json, pretty_array_of_arrays_has_a_line_for_each) {
  const var rows = array_of({array_of({1, 2}), array_of({3})});
  EXPECT_EQ(pretty(rows), "[\n  [ 1, 2 ],\n  [ 3 ]\n]");
  EXPECT_EQ(compact(rows), "[ [ 1,2 ],[ 3 ] ]");
  EXPECT_EQ(pretty(array_of({var::array()})), "[\n  []\n]");
}

TEST(var_json, array_that_is_not_all_arrays_stays_on_one_line) {
  EXPECT_EQ(pretty(array_of({array_of({1}), 2})), "[ [ 1 ], 2 ]");
  EXPECT_EQ(pretty(array_of({1, array_of({2})})), "[ 1, [ 2 ] ]");
}

TEST(var_json, missing_element_prints_as_null_and_is_no_array) {
  var array = array_of({array_of({1})});
  list_in(array).add(nullptr);
  EXPECT_EQ(pretty(array), "[ [ 1 ], null ]");
  EXPECT_EQ(compact(array), "[ [ 1 ],null ]");
}

TEST(var_json, array_on_one_line_adds_to_the_depth) {
  EXPECT_EQ(pretty(array_of({1, array_of({2, array_of({array_of({3})})})})),
            "[ 1, [ 2, [\n"
            "      [ 3 ]\n"
            "    ] ] ]");
  EXPECT_EQ(pretty(array_of({1, array_of({2, object_of({{"k", 3}})})})),
            "[ 1, [ 2, \n"
            "    {\n"
            "      \"k\" : 3\n"
            "    } ] ]");
}

TEST(var_json, arrays_of_arrays_of_arrays_are_indented_by_depth) {
  const var deep = array_of({array_of({array_of({1}), array_of({2})}), array_of({array_of({3})})});
  EXPECT_EQ(pretty(deep),
            "[\n"
            "  [\n"
            "    [ 1 ],\n"
            "    [ 2 ]\n"
            "  ],\n"
            "  [\n"
            "    [ 3 ]\n"
            "  ]\n"
            "]");
  EXPECT_EQ(compact(deep), "[ [ [ 1 ],[ 2 ] ],[ [ 3 ] ] ]");
}

TEST(var_json, pretty_object_has_a_line_for_each_key) {
  const var object = object_of({{"z", 1}, {"a", "x"}, {"m", array_of({1, 2})}});
  EXPECT_EQ(pretty(object), "{\n  \"z\" : 1,\n  \"a\" : \"x\",\n  \"m\" : [ 1, 2 ]\n}");
  EXPECT_EQ(compact(object), "{\"z\":1,\"a\":\"x\",\"m\":[ 1,2 ]}");
}

TEST(var_json, nested_object_starts_on_a_line_of_its_own_after_a_blank) {
  const var object = object_of({{"a", 1}, {"b", object_of({{"c", true}})}});
  EXPECT_EQ(pretty(object),
            "{\n"
            "  \"a\" : 1,\n"
            "  \"b\" : \n"
            "  {\n"
            "    \"c\" : true\n"
            "  }\n"
            "}");
  EXPECT_EQ(compact(object), "{\"a\":1,\"b\":{\"c\":true}}");
}

TEST(var_json, objects_are_indented_by_depth) {
  const var object = object_of({{"a", object_of({{"b", object_of({{"c", 1}, {"d", 2}})}})}, {"e", 3}});
  EXPECT_EQ(pretty(object),
            "{\n"
            "  \"a\" : \n"
            "  {\n"
            "    \"b\" : \n"
            "    {\n"
            "      \"c\" : 1,\n"
            "      \"d\" : 2\n"
            "    }\n"
            "  },\n"
            "  \"e\" : 3\n"
            "}");
}

TEST(var_json, indent_grows_by_two_blanks_at_every_depth) {
  const size_t depth = 8;
  var object(1), array = array_of({1});
  std::string objects, arrays, objects_end, arrays_end;
  for (size_t i = 0; i < depth; i++) {
    object = object_of({{"k", object}});
    array = array_of({array});
    const std::string indent(2 * i, ' ');
    objects += (i > 0 ? "\n" + indent : "") + "{\n  " + indent + "\"k\" : ";
    objects_end = "\n" + indent + "}" + objects_end;
    arrays += "[\n  " + indent;
    arrays_end = "\n" + indent + "]" + arrays_end;
  }
  EXPECT_EQ(pretty(object), objects + "1" + objects_end);
  EXPECT_EQ(pretty(array), arrays + "[ 1 ]" + arrays_end);
}

TEST(var_json, empty_containers_stay_short_inside_others) {
  const var object = object_of({{"a", var::object()}, {"b", var::array()}});
  EXPECT_EQ(pretty(object), "{\n  \"a\" : {},\n  \"b\" : []\n}");
  EXPECT_EQ(compact(object), "{\"a\":{},\"b\":[]}");
}

TEST(var_json, object_in_an_array_starts_on_a_line_of_its_own) {
  const var array = array_of({object_of({{"a", 1}}), object_of({{"b", 2}})});
  EXPECT_EQ(pretty(array),
            "[ \n"
            "  {\n"
            "    \"a\" : 1\n"
            "  }, \n"
            "  {\n"
            "    \"b\" : 2\n"
            "  } ]");
  EXPECT_EQ(compact(array), "[ {\"a\":1},{\"b\":2} ]");
}

TEST(var_json, array_of_arrays_in_an_object_is_indented_by_depth) {
  const var object = object_of({{"rows", array_of({array_of({1}), array_of({2})})}});
  EXPECT_EQ(pretty(object),
            "{\n"
            "  \"rows\" : [\n"
            "    [ 1 ],\n"
            "    [ 2 ]\n"
            "  ]\n"
            "}");
}

TEST(var_json, key_is_escaped_like_a_string) {
  EXPECT_EQ(compact(object_of({{"", 1}, {"\"\n\xc3\xa9", 2}})), "{\"\":1,\"\\\"\\n\\u00e9\":2}");
}

TEST(var_json, missing_value_prints_as_null) {
  var object = object_of({{"a", 1}});
  map_in(object).set("b", nullptr);
  EXPECT_EQ(compact(object), "{\"a\":1,\"b\":null}");
}

TEST(var_json, keys_keep_their_order_through_growth_replacement_and_removal) {
  var object = var::object();
  std::string expected = "{";
  for (int i = 0; i < 100; i++) object.set("key" + std::to_string(99 - i), i);
  object.set("key99", -1);
  delete map_in(object).get("key98");
  map_in(object).remove("key98");
  for (int i = 0; i < 100; i++) {
    if (i == 1) continue;
    expected +=
        "\"key" + std::to_string(99 - i) + "\":" + std::to_string(i == 0 ? -1 : i) + (i < 99 ? "," : "}");
  }
  EXPECT_EQ(compact(object), expected);
}

TEST(var_json, array_in_itself_is_a_cycle) {
  var array = array_of({1});
  array.push(array);
  EXPECT_EQ(pretty(array), "[ 1, ERROR_CYCLE ]");
  EXPECT_EQ(compact(array), "[ 1,ERROR_CYCLE ]");
  break_cycle(array);
}

TEST(var_json, cycle_counts_as_an_array_for_the_layout) {
  var array = var::array();
  array.push(array);
  EXPECT_EQ(pretty(array), "[\n  ERROR_CYCLE\n]");
  EXPECT_EQ(compact(array), "[ ERROR_CYCLE ]");
  break_cycle(array);
}

TEST(var_json, object_in_itself_is_a_cycle) {
  var object = object_of({{"a", 1}});
  object.set("self", object);
  EXPECT_EQ(pretty(object), "{\n  \"a\" : 1,\n  \"self\" : ERROR_CYCLE\n}");
  EXPECT_EQ(compact(object), "{\"a\":1,\"self\":ERROR_CYCLE}");
  break_cycle(object);
}

TEST(var_json, cycle_through_others_is_cut_where_it_recurs) {
  var inner = var::array();
  var outer = object_of({{"self", inner}});
  inner.push(outer);
  EXPECT_EQ(compact(outer), "{\"self\":[ ERROR_CYCLE ]}");
  EXPECT_EQ(compact(inner), "[ {\"self\":ERROR_CYCLE} ]");
  break_cycle(outer);
}

TEST(var_json, cycle_is_found_however_deep_it_lies_and_however_far_back_it_leads) {
  var innermost = var::array();
  var v = innermost;
  std::string before, behind;
  for (int i = 0; i < 20; i++) {
    v = array_of({v});
    before += "[ ";
    behind += " ]";
  }
  for (const var& target : {innermost, v, v.get(0), v.get(0).get(0)}) {
    innermost.push(target);
    EXPECT_EQ(compact(v), before + "[ ERROR_CYCLE ]" + behind);
    break_cycle(innermost);
  }
}

TEST(var_json, same_payload_side_by_side_is_no_cycle) {
  const var shared = array_of({1});
  const var object = object_of({{"k", 1}});
  EXPECT_EQ(compact(array_of({shared, shared, object, object})), "[ [ 1 ],[ 1 ],{\"k\":1},{\"k\":1} ]");
  const var text("text");
  EXPECT_EQ(compact(array_of({text, array_of({text})})), "[ \"text\",[ \"text\" ] ]");
}

TEST(var_json, payload_that_is_being_printed_is_a_cycle_before_its_kind_is_looked_at) {
  for (const var& v : {var("text"), var::array(), var::object(), array_of({1}), object_of({{"k", 1}})}) {
    base::arraylist<var::var_data*> visited;
    visited.add(v.data);
    EXPECT_EQ(v.to_json_helper(visited, true), "ERROR_CYCLE");
    EXPECT_EQ(visited.count, 1u);
  }
}

TEST(var_json, depth_is_the_number_of_payloads_being_printed) {
  const var around = var::array(), further = var::array();
  base::arraylist<var::var_data*> visited;
  visited.add(further.data);
  visited.add(around.data);
  EXPECT_EQ(object_of({{"a", 1}}).to_json_helper(visited, true), "\n    {\n      \"a\" : 1\n    }");
  EXPECT_EQ(array_of({array_of({1})}).to_json_helper(visited, true), "[\n      [ 1 ]\n    ]");
  EXPECT_EQ(object_of({{"a", 1}}).to_json_helper(visited, false), "{\"a\":1}");
  ASSERT_EQ(visited.count, 2u);
  EXPECT_EQ(visited.data[1], around.data);
  EXPECT_EQ(visited.data[2], nullptr);
}

// It must be a loop: 100,000 nested calls do not fit on a stack.
TEST(var_json, nesting_that_is_deeper_than_a_stack_prints_completely) {
  constexpr size_t levels = 100000;
  var v = array_of({1, 2});
  std::string front, back;
  for (size_t i = 0; i < levels; i++) {
    const bool is_object = i % 2 == 1;
    v = is_object ? object_of({{"k", v}}) : array_of({v});
    front += is_object ? "[ " : "{\"k\":";  // from the outermost container on, which is an object
    back += is_object ? "}" : " ]";
  }
  EXPECT_TRUE(compact(v) == front + "[ 1,2 ]" + back);
}

TEST(var_json, value_can_be_printed_again_and_twice_in_one_container) {
  const var inner = array_of({1}), outer = array_of({inner, inner});
  for (int i = 0; i < 2; i++) EXPECT_EQ(compact(outer), "[ [ 1 ],[ 1 ] ]");
  EXPECT_EQ(compact(inner), "[ 1 ]");
}

TEST(var_json, deep_nesting_prints_completely) {
  var v = array_of({1, 2});
  std::string expected = "[ 1,2 ]";
  for (int i = 0; i < 200; i++) {
    v = array_of({v});
    expected = "[ " + expected + " ]";
  }
  EXPECT_EQ(compact(v), expected);
}

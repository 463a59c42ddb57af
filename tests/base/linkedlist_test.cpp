#include "base/linkedlist.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>

using base::linkedlist;

namespace {

using chars = linkedlist<char>;

// A list of letters. The letters that a pass visits form a word.
struct linkedlist_of_letters : testing::Test {
  chars list;

  void push(const std::string& letters) {
    for (char c : letters) list.push(c);
  }

  // Visits every element, and removes those in `unwanted` while they are visited.
  std::string pass(const std::string& unwanted = "") {
    std::string visited;
    char c = 0;
    for (list.begin(); list.current(c); list.next()) {
      visited += c;
      if (unwanted.find(c) != std::string::npos) list.remove();
    }
    return visited;
  }

  std::string content() const {
    std::string letters;
    for (auto* n = list.head->next; n; n = n->next) letters += n->value;
    return letters;
  }

  // The element that the pass is on; '-' when it is on none.
  char visited() const {
    char c = '-';
    list.current(c);
    return c;
  }
};

// A value that counts its living copies.
struct counted {
  static int living;
  counted() { living++; }
  counted(const counted&) { living++; }
  counted& operator=(const counted&) = default;
  ~counted() { living--; }
};

int counted::living = 0;

}  // namespace

TEST_F(linkedlist_of_letters, is_made_of_its_five_fields_in_order_and_starts_at_the_sentinel) {
  auto& [head, tail, cursor, resume, count] = list;
  static_assert(std::is_same_v<std::remove_reference_t<decltype(count)>, int32_t>);
  EXPECT_EQ(&list.head, &head);
  EXPECT_EQ(&list.tail, &tail);
  EXPECT_EQ(&list.cursor, &cursor);
  EXPECT_EQ(&list.resume, &resume);
  EXPECT_EQ(&list.count, &count);
  ASSERT_NE(head, nullptr);
  EXPECT_EQ(head->value, 0);
  EXPECT_EQ(head->next, nullptr);
  EXPECT_EQ(tail, head);
  EXPECT_EQ(cursor, head);
  EXPECT_EQ(resume, nullptr);
  EXPECT_EQ(count, 0);
}

TEST_F(linkedlist_of_letters, node_is_made_of_value_and_next) {
  auto& [value, next] = *list.head;
  EXPECT_EQ(&list.head->value, &value);
  EXPECT_EQ(&list.head->next, &next);
}

TEST_F(linkedlist_of_letters, push_appends_at_the_tail) {
  push("xyz");
  EXPECT_EQ(content(), "xyz");
  EXPECT_EQ(list.count, 3);
  EXPECT_EQ(list.tail->value, 'z');
  EXPECT_EQ(list.tail->next, nullptr);
}

TEST_F(linkedlist_of_letters, front_is_the_first_element_and_stays) {
  EXPECT_EQ(list.front(), '\0');
  push("xyz");
  EXPECT_EQ(list.front(), 'x');
  EXPECT_EQ(content(), "xyz");
  list.pop();
  EXPECT_EQ(list.front(), 'y');
  pass("y");
  EXPECT_EQ(list.front(), 'z');
  list.pop();
  EXPECT_EQ(list.front(), '\0');
}

TEST_F(linkedlist_of_letters, pop_takes_the_first_element) {
  push("xyz");
  EXPECT_EQ(list.pop(), 'x');
  EXPECT_EQ(list.pop(), 'y');
  EXPECT_EQ(content(), "z");
  EXPECT_EQ(list.count, 1);
}

TEST_F(linkedlist_of_letters, popping_the_only_element_leaves_the_tail_at_the_head) {
  push("x");
  EXPECT_EQ(list.pop(), 'x');
  EXPECT_EQ(list.tail, list.head);
  EXPECT_EQ(list.count, 0);
  push("y");
  EXPECT_EQ(content(), "y");
}

TEST_F(linkedlist_of_letters, popping_from_an_empty_list_returns_zero_and_changes_nothing) {
  EXPECT_EQ(list.pop(), 0);
  EXPECT_EQ(list.count, 0);
  EXPECT_EQ(list.tail, list.head);
  EXPECT_EQ(list.cursor, list.head);
}

TEST_F(linkedlist_of_letters, popping_the_node_under_the_cursor_moves_the_cursor_to_the_head) {
  push("xyz");
  list.begin();
  list.next();  // on y; the cursor is x's node
  list.pop();
  EXPECT_EQ(list.cursor, list.head);
  EXPECT_EQ(visited(), 'y');
}

TEST_F(linkedlist_of_letters, popping_before_the_cursor_leaves_the_pass_where_it_is) {
  push("xyz");
  list.begin();
  list.next();
  list.next();
  list.pop();
  EXPECT_EQ(visited(), 'z');
}

TEST_F(linkedlist_of_letters, popping_leaves_resume_alone) {
  push("xyz");
  list.begin();
  list.next();
  list.remove();  // y; resume is z's node
  auto* resume = list.resume;
  list.pop();
  EXPECT_EQ(list.resume, resume);
  EXPECT_EQ(list.resume->value, 'z');
}

TEST_F(linkedlist_of_letters, pass_visits_every_element_in_order) {
  EXPECT_EQ(pass(), "");
  push("xyz");
  EXPECT_EQ(pass(), "xyz");
  EXPECT_EQ(pass(), "xyz");
}

TEST_F(linkedlist_of_letters, cursor_is_the_node_before_the_visited_element) {
  push("xyz");
  list.begin();
  EXPECT_EQ(list.cursor, list.head);
  list.next();
  EXPECT_EQ(list.cursor, list.head->next);
  EXPECT_EQ(visited(), 'y');
}

TEST_F(linkedlist_of_letters, current_leaves_its_argument_alone_when_the_pass_is_over) {
  char c = '?';
  EXPECT_FALSE(list.current(c));
  EXPECT_EQ(c, '?');
  push("x");
  EXPECT_TRUE(list.current(c));
  EXPECT_EQ(c, 'x');
}

TEST_F(linkedlist_of_letters, next_at_the_end_of_a_pass_stays_there) {
  push("x");
  EXPECT_EQ(pass(), "x");
  list.next();
  list.next();
  EXPECT_EQ(visited(), '-');
  EXPECT_EQ(list.cursor, list.tail);
}

TEST_F(linkedlist_of_letters, element_pushed_during_a_pass_is_visited_by_it) {
  push("x");
  list.begin();
  list.next();
  EXPECT_EQ(visited(), '-');
  push("y");
  EXPECT_EQ(visited(), 'y');
}

TEST_F(linkedlist_of_letters, element_after_a_removed_one_is_visited_in_the_next_pass) {
  push("xyz");
  EXPECT_EQ(pass("x"), "xz");
  EXPECT_EQ(content(), "yz");
  EXPECT_EQ(pass(), "yz");
}

TEST_F(linkedlist_of_letters, pass_that_removes_everything_it_visits_gets_every_second_element) {
  push("abcdefg");
  EXPECT_EQ(pass("abcdefg"), "aceg");
  EXPECT_EQ(pass("abcdefg"), "bf");
  EXPECT_EQ(pass("abcdefg"), "d");
  EXPECT_EQ(list.count, 0);
  EXPECT_EQ(list.tail, list.head);
}

TEST_F(linkedlist_of_letters, removal_empties_the_cursor_and_resumes_at_the_next_node) {
  push("xyz");
  list.begin();
  list.remove();
  EXPECT_EQ(list.cursor, nullptr);
  EXPECT_EQ(list.resume, list.head->next);
  EXPECT_EQ(list.resume->value, 'y');
  EXPECT_EQ(list.count, 2);
  EXPECT_EQ(visited(), '-');
  list.next();
  EXPECT_EQ(list.cursor->value, 'y');
  EXPECT_EQ(list.resume, nullptr);
  EXPECT_EQ(visited(), 'z');
}

TEST_F(linkedlist_of_letters, removing_the_last_element_moves_the_tail_and_ends_the_pass) {
  push("xy");
  EXPECT_EQ(pass("y"), "xy");
  EXPECT_EQ(list.tail->value, 'x');
  EXPECT_EQ(list.resume, nullptr);
  EXPECT_EQ(list.cursor, nullptr);
  list.next();
  EXPECT_EQ(list.cursor, nullptr);
  push("z");
  EXPECT_EQ(content(), "xz");
}

TEST_F(linkedlist_of_letters, second_removal_at_the_same_place_does_nothing) {
  push("xyz");
  list.begin();
  list.remove();
  list.remove();
  EXPECT_EQ(content(), "yz");
  EXPECT_EQ(list.count, 2);
  EXPECT_EQ(list.resume->value, 'y');
}

TEST_F(linkedlist_of_letters, removal_when_the_pass_is_over_does_nothing) {
  list.remove();
  EXPECT_EQ(list.count, 0);
  EXPECT_EQ(list.cursor, list.head);
  push("x");
  pass();
  list.remove();
  EXPECT_EQ(content(), "x");
  EXPECT_EQ(list.cursor, list.tail);
}

TEST_F(linkedlist_of_letters, new_pass_forgets_an_unfinished_removal) {
  push("xyz");
  list.begin();
  list.remove();
  list.begin();
  EXPECT_EQ(list.cursor, list.head);
  EXPECT_EQ(list.resume, nullptr);
  EXPECT_EQ(visited(), 'y');
}

TEST(linkedlist, destroying_a_node_destroys_the_chain_after_it) {
  using node = linkedlist<counted>::node;
  auto* chain = new node;
  chain->next = new node;
  chain->next->next = new node;
  EXPECT_EQ(counted::living, 3);
  delete chain;
  EXPECT_EQ(counted::living, 0);
}

TEST(linkedlist, destructor_frees_every_node) {
  {
    linkedlist<counted> list;
    for (int i = 0; i < 3; i++) list.push(counted());
    EXPECT_EQ(counted::living, 4);
  }
  EXPECT_EQ(counted::living, 0);
}

TEST(linkedlist, destructor_frees_uncounted_nodes_with_the_sentinel) {
  {
    linkedlist<counted> list;
    for (int i = 0; i < 3; i++) list.push(counted());
    list.count = 1;
  }
  EXPECT_EQ(counted::living, 0);
}

TEST(linkedlist, pop_and_remove_free_one_node) {
  linkedlist<counted> list;
  for (int i = 0; i < 4; i++) list.push(counted());
  list.pop();
  EXPECT_EQ(counted::living, 4);
  list.begin();
  list.remove();
  EXPECT_EQ(counted::living, 3);
}

TEST(linkedlist, long_list_is_destroyed_without_recursion) {
  linkedlist<int> list;
  for (int i = 0; i < 1000000; i++) list.push(i);
  EXPECT_EQ(list.count, 1000000);
}

TEST(linkedlist, never_touches_what_its_values_point_to) {
  int x = 1;
  {
    linkedlist<int*> list;
    for (int i = 0; i < 3; i++) list.push(&x);
    EXPECT_EQ(list.pop(), &x);
    list.begin();
    list.remove();
    list.pop();
    EXPECT_EQ(list.pop(), nullptr);
    list.push(&x);
  }
  EXPECT_EQ(x, 1);
}

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "base/linkedlist.h"

using base::linkedlist;

namespace {

// The list as a vector, and the cursor as the number of the node before the visited element. Nodes are
// numbered from 1 in the order in which they were pushed; 0 is the sentinel.
struct linkedlist_model {
  static constexpr int none = -1;
  std::vector<int> nodes;
  int cursor = 0;
  int resume = none;

  size_t place_behind(int node) const {
    size_t i = 0;
    if (node == 0) return 0;
    while (nodes[i] != node) i++;
    return i + 1;
  }
  bool is_visiting() const { return cursor != none && place_behind(cursor) < nodes.size(); }
  int visited() const { return is_visiting() ? nodes[place_behind(cursor)] : 0; }

  int pop() {
    if (nodes.empty()) return 0;
    int first = nodes[0];
    if (cursor == first) cursor = 0;
    nodes.erase(nodes.begin());
    return first;
  }

  void begin() {
    cursor = 0;
    resume = none;
  }

  void next() {
    if (is_visiting()) {
      cursor = visited();
    } else if (resume != none) {
      cursor = resume;
      resume = none;
    }
  }

  void remove() {
    if (!is_visiting()) return;
    size_t place = place_behind(cursor);
    nodes.erase(nodes.begin() + static_cast<std::ptrdiff_t>(place));
    resume = place < nodes.size() ? nodes[place] : none;
    cursor = none;
  }
};

int number_of(const linkedlist<int>::node* n) {
  return n ? n->value : linkedlist_model::none;
}

void expect_same(const linkedlist<int>& list, const linkedlist_model& model) {
  std::vector<int> nodes;
  for (auto* n = list.head->next; n; n = n->next) nodes.push_back(n->value);
  ASSERT_EQ(nodes, model.nodes);
  ASSERT_EQ(list.count, static_cast<int32_t>(nodes.size()));
  ASSERT_EQ(number_of(list.tail), nodes.empty() ? 0 : nodes.back());
  ASSERT_EQ(number_of(list.cursor), model.cursor);
  ASSERT_EQ(number_of(list.resume), model.resume);
  int x = 0;
  ASSERT_EQ(list.current(x), model.is_visiting());
  ASSERT_EQ(x, model.visited());
}

}  // namespace

TEST(linkedlist_random, every_field_is_as_predicted_over_a_long_run) {
  linkedlist<int> list;
  linkedlist_model model;
  std::mt19937 random(3);
  for (int step = 1; step <= 50000; step++) {
    const auto action = random() % 100;
    const bool is_growing = model.nodes.size() < (step / 2000 % 2 ? 40u : 4u);
    if (action < (is_growing ? 40u : 10u)) {
      list.push(step);
      model.nodes.push_back(step);
    } else if (action < 50) {
      // Between remove() and next() a pop could free the node where the pass resumes.
      if (model.resume != linkedlist_model::none) continue;
      ASSERT_EQ(list.pop(), model.pop());
    } else if (action < 55) {
      list.begin();
      model.begin();
    } else if (action < 85) {
      list.next();
      model.next();
    } else {
      list.remove();
      model.remove();
    }
    expect_same(list, model);
    ASSERT_FALSE(testing::Test::HasFatalFailure()) << "step " << step;
  }
}

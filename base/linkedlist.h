/* linkedlist: a queue with a built-in cursor. One pass at a time walks over the queue, and may remove the
 * element that it visits.
 *
 * Owns its nodes, never the values. A sentinel node comes before the first element.
 *
 *     for (list.begin(); list.current(x); list.next()) { if (...) list.remove(); }
 *
 * The element after a removed one is not visited in that pass; the next pass visits it. Elements pushed
 * during a pass are visited before it ends.
 *
 * Between calls: (1) tail->next is null, and tail == head exactly when count is 0; (2) cursor is the node
 * before the visited element, or null after remove(); (3) after remove(), resume is the node from which the
 * pass continues; while cursor is not null, resume is null. pop() must not be called between remove() and the
 * next() that follows, because it could free the node that resume points to. */
#pragma once

#include <cstdint>

namespace base {

template <class T>
struct linkedlist {
  struct node {
    T value{};
    node* next = nullptr;

    node() = default;
    node(const node&) = delete;
    node& operator=(const node&) = delete;
    ~node() { delete next; }  // deletes the rest of the chain, recursively: only for short chains
  };

  node* head;
  node* tail;
  node* cursor;
  node* resume = nullptr;
  int32_t count = 0;

  linkedlist() : head(new node), tail(head), cursor(head) {}
  linkedlist(const linkedlist&) = delete;
  linkedlist& operator=(const linkedlist&) = delete;

  ~linkedlist() {
    while (count > 0) pop();
    delete head;
  }

  /* Appends `x`. */
  void push(T x) {
    node* n = new node;  // deleted by pop() or remove()
    n->value = x;
    tail->next = n;
    count++;
    tail = n;
  }

  /* The first element; T() when there is none. */
  T front() const {
    if (!head->next) return T();
    return head->next->value;
  }

  /* Removes the first element and returns it; T() when there is none. */
  T pop() {
    node* first = head->next;
    if (!first) return T();
    if (first == tail) tail = head;
    if (first == cursor) cursor = head;
    head->next = first->next;
    count--;
    return free_node(first);
  }

  /* Starts a pass at the first element. */
  void begin() {
    cursor = head;
    resume = nullptr;
  }

  /* Whether the pass is on an element; if so, stores it in `out`. */
  bool current(T& out) const {
    if (!cursor || !cursor->next) return false;
    out = cursor->next->value;
    return true;
  }

  /* Goes on to the next element. After remove(), this skips the element after the removed one. */
  void next() {
    if (cursor && cursor->next) {
      cursor = cursor->next;
    } else if (resume) {
      cursor = resume;
      resume = nullptr;
    }
  }

  /* Removes the element that the pass is on, if there is one. */
  void remove() {
    if (!cursor || !cursor->next) return;
    node* victim = cursor->next;
    if (victim == tail) tail = cursor;
    cursor->next = victim->next;
    free_node(victim);
    count--;
    resume = cursor->next;
    cursor = nullptr;
  }

 private:
  // Frees only `n`, not the chain after it, and returns its value.
  static T free_node(node* n) {
    T value = n->value;
    n->next = nullptr;
    delete n;
    return value;
  }
};

}  // namespace base

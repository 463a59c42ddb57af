/* console: what the code under test prints on standard output, from the object's creation on. */
#pragma once

#include <string>

class console {
 public:
  console();
  console(const console&) = delete;
  console& operator=(const console&) = delete;

  /* Gives standard output back to whom it belonged. */
  ~console();

  /* Everything printed since the creation or the last clear(). */
  std::string text();

  /* What was printed so far is forgotten. */
  void clear();

 private:
  int saved_;  // the real standard output
  int file_;   // what stands in for it, an unlinked file
};

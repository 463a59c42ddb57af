/* console: what the code under test prints on standard output, from the object's creation on. */
#pragma once

#include <string>

class console {
 public:
  console();
  console(const console&) = delete;
  console& operator=(const console&) = delete;

  /* Restores the real standard output. */
  ~console();

  /* Everything printed since the creation or the last clear(). */
  std::string text();

  /* Forgets what was printed so far. */
  void clear();

 private:
  int saved_;  // the real standard output
  int file_;   // takes its place: an unlinked file
};

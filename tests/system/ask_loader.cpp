// Asks the loader for the file of each library that is named on standard input, and prints the answers.
// Standard error is buffered, so the test sees only what the loader flushes.

#include <cstdio>
#include <iostream>
#include <string>

#include "tls/import.h"

int main() {
  setvbuf(stderr, nullptr, _IOFBF, BUFSIZ);
  for (std::string name; std::getline(std::cin, name);) {
    printf("%s\n", _import_probe(name).c_str());
    fflush(stdout);
  }
}

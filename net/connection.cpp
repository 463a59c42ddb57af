#include "net/connection.h"

#include <ctime>

connection::connection() : last_active(static_cast<int32_t>(time(nullptr))) {}

connection*& connection::selected() {
  static connection* current = nullptr;
  return current;
}

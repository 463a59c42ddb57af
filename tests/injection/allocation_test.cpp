// Memory that the system does not give: the pages of a connection, and the blocks of a queue.

#include <cerrno>
#include <memory>
#include <vector>

#include "tests/injection/fault_run.h"

extern "C" {

void* __real_malloc(size_t size);

// The linker puts this in place of malloc() in our own code, and there alone.
void* __wrap_malloc(size_t size) {
  int result = 0;
  return faults::fails("malloc", result) ? nullptr : __real_malloc(size);
}

}  // extern "C"

namespace {

/* A stage on which no connection finds the pages of an earlier one. */
class stage_without_spares : public plain_stage {
 public:
  stage_without_spares() {
    with_faults on;
    take_spares([this] { return new proxy_connection(-1, &unused_); });
    take_spares([] { return new reverse_proxy; });
  }

 private:
  static constexpr int mapped_at_once = 8;

  // The object that needs new pages is the first behind the last spare, and brings spares of its own.
  template <class Make>
  void take_spares(Make make) {
    const int mapped = faults::calls()["mmap"];
    while (faults::calls()["mmap"] == mapped) taken_.emplace_back(make());
    for (int i = 1; i < mapped_at_once; i++) taken_.emplace_back(make());
  }

  proxy_pipe unused_;
  std::vector<std::unique_ptr<connection>> taken_;
};

}  // namespace

TEST(allocation, connection_without_pages_is_the_only_one_harmed) {
  run_for_every_use<stage_without_spares>({"mmap", ENOMEM, harm::one_client}, 1);
}

TEST(allocation, connections_without_pages_are_survived) {
  run_for_every_use<stage_without_spares>({"mmap", ENOMEM, harm::one_client}, 5);
}

// There is no way to go on: what the peer sent has been read, and cannot be kept.
TEST(allocation, queue_without_memory_ends_the_run_and_everything_is_released) {
  run_for_every_use<plain_stage>({"malloc", ENOMEM, harm::the_whole_run}, 1);
}

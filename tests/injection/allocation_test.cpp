// Memory that the system does not give: the pages of a connection.

#include <cerrno>
#include <memory>
#include <vector>

#include "tests/injection/fault_run.h"

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
  // The object that needs new pages is the first behind the last spare.
  template <class Make>
  void take_spares(Make make) {
    const int mapped = faults::calls()["mmap"];
    while (faults::calls()["mmap"] == mapped) taken_.emplace_back(make());
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

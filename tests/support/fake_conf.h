#ifndef TESTS_SUPPORT_FAKE_CONF_H_
#define TESTS_SUPPORT_FAKE_CONF_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vexo_iscsi_ep.h"

namespace vexo::test {

// The configuration library of a test process: this file replaces the closed library.
class fake_conf {
 public:
  using luns = std::vector<std::pair<std::string, std::uint32_t>>;  // identifier, type flags

  // No LUNs, counters at zero, and no load fails or is interrupted.
  void reset();
  void set(luns inventory);
  // `interruption` is called within the next load, once.
  void in_next_load(std::function<void()> interruption);

  std::atomic<bool> fails = false;  // each load
  std::atomic<int> loads = 0;
  std::atomic<int> frees = 0;
  std::atomic<int> records_alive = 0;

  // The library's two calls.
  int get(const load_request* request, conf_holder* holder, const list_head* third,
          const list_head* second);
  void free(conf_holder* holder);

 private:
  std::mutex mutex_;
  luns luns_;
  std::function<void()> interruption_;
};

fake_conf& the_conf();

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_FAKE_CONF_H_

#ifndef TESTS_SUPPORT_FAKE_CONF_H_
#define TESTS_SUPPORT_FAKE_CONF_H_

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "vexo_iscsi_ep.h"

namespace vexo::test {

// The configuration library of a test process: linking this file takes the closed library's place.
class fake_conf {
 public:
  using luns = std::vector<std::pair<std::string, std::uint32_t>>;  // identifier, type flags

  // No LUNs, nothing counted, no load held or failing.
  void reset();
  void set(luns inventory);
  void fail_loads(bool fail);
  // The next load does not return before release_load; others pass meanwhile.
  void hold_next_load();
  void wait_until_held();
  void release_load();

  int loads();
  int frees();
  int records_alive();

  // The library's two calls.
  int get(const load_request* request, conf_holder* holder, const list_head* third,
          const list_head* second);
  void free(conf_holder* holder);

 private:
  enum class hold { none, next, held };

  std::mutex mutex_;
  std::condition_variable changed_;
  luns luns_;
  bool fail_ = false;
  hold hold_ = hold::none;
  int loads_ = 0;
  int frees_ = 0;
  int records_ = 0;
};

fake_conf& the_conf();

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_FAKE_CONF_H_

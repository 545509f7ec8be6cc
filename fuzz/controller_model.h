#ifndef FUZZ_CONTROLLER_MODEL_H_
#define FUZZ_CONTROLLER_MODEL_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "fake_conf.h"
#include "made_up.h"
#include "plugin_server_ctrl.h"

namespace vexo::fuzz {

// The LUNs that a script finds: one that is mirrored, one that needs no mirror, an unsupported one.
inline const test::fake_conf::luns kInventory = {
    {"1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", 0xF},
    {"c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e", 0x103},
    {"0e984725-c51c-4bf4-9960-e1c80e27aba0", 0x7},
};

// One subscriber, as a target made it: the call, the request and the record that the controller
// keeps.
struct host {
  fake_call call;
  scsiplugin::PluginClient request;
  std::string ip;      // that the controller must list
  std::size_t stream;  // that its commands come out of
  std::shared_ptr<scsiplugin::plugin_client> record = nullptr;
  bool released = false;  // a broadcast has met it vanished
};

// One handshake, as it ought to be.
struct handshake {
  time_point created;
  std::uint32_t state = scsiplugin::TASK_CREATED;
};

// What the controller ought to hold, in plain maps, and how each operation on handshakes ought to
// end. Waits are the caller's: begin one, let others happen, then ask how it ended.
class controller_model {
 public:
  // The handshake that init_snapshot begins; empty when it is refused.
  std::shared_ptr<handshake> begin(const std::string& key);
  // The one under `key`; empty when there is none.
  std::shared_ptr<handshake> find(const std::string& key) const;

  // What the four that answer at once answer.
  bool move(const std::string& key, scsiplugin::task_state next);  // start_mirror, depart_relation
  bool is_mirror_done(const std::string& key, int type);
  bool mirror_done(const std::string& key);
  bool is_lun_support(const std::string& lun, int type) const;

  // Fails unless the controller holds just this, unchanged, and every lock is free.
  void expect_equal(scsiplugin::PluginServerCtrl* ctrl) const;

  std::map<std::string, std::unique_ptr<host>> hosts;
  std::map<std::string, std::shared_ptr<handshake>> handshakes;

 private:
  // The flags of the LUN; 0, which supports nothing, when it cannot be found.
  std::uint32_t flags_of(const std::string& lun, int type) const;
};

}  // namespace vexo::fuzz

#endif  // FUZZ_CONTROLLER_MODEL_H_

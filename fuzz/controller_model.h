#ifndef FUZZ_CONTROLLER_MODEL_H_
#define FUZZ_CONTROLLER_MODEL_H_

#include <gtest/gtest.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "fake_conf.h"
#include "plugin_server_ctrl.h"
#include "simulation.h"

namespace vexo::fuzz {

// The LUNs that a script finds: one that is mirrored, one that needs no mirror, an unsupported one.
inline const test::fake_conf::luns kInventory = {
    {"1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", 0xF},
    {"c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e", 0x103},
    {"0e984725-c51c-4bf4-9960-e1c80e27aba0", 0x7},
};

// Their page-83h identifiers.
inline constexpr const char* kNaa[] = {"60014051a2b3c4dd5e6fd7a8bd9c0dde",
                                       "6001405c3d9e8b1d2f64d4b7ad9e05d7",
                                       "60014050e984725dc51cd4bf4d9960de"};

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

// One handshake, as the controller should hold it.
struct handshake {
  time_point created;
  std::uint32_t state = scsiplugin::TASK_CREATED;
};

// What the controller should hold, in plain maps, and how each operation on handshakes should end.
// A wait is not modelled: the caller takes the handshake before it and looks at its state after it.
class controller_model {
 public:
  // The handshake that init_snapshot begins; empty when it is refused.
  std::shared_ptr<handshake> begin(const std::string& key) {
    const auto existing = find(key);
    if (existing && the_time().now - existing->created < std::chrono::seconds(300)) return nullptr;
    return handshakes[key] = std::make_shared<handshake>(handshake{the_time().now});
  }

  // The one under `key`; empty when there is none.
  std::shared_ptr<handshake> find(const std::string& key) const {
    const auto found = handshakes.find(key);
    return found == handshakes.end() ? nullptr : found->second;
  }

  // The next four return the verdict of calls that answer at once. start_mirror, depart_relation:
  bool move(const std::string& key, scsiplugin::task_state next) {
    const auto found = find(key);
    if (found) found->state = next;
    return found != nullptr;
  }

  bool is_mirror_done(const std::string& key, int type) {
    const auto found = find(key);
    const std::uint32_t flags = flags_of(key, type);
    if (!found || flags == 0) return false;
    if ((flags & 0x103) == 0x103) found->state = scsiplugin::TASK_MIRROR_DONE;
    return found->state == scsiplugin::TASK_MIRROR_DONE;
  }

  bool mirror_done(const std::string& key) {
    const auto found = find(key);
    if (!found || found->state != scsiplugin::TASK_MIRROR_STARTED) return false;
    found->state = scsiplugin::TASK_MIRROR_DONE;
    return true;
  }

  bool is_lun_support(const std::string& lun, int type) const {
    const std::uint32_t flags = flags_of(lun, type);
    return (flags & 0xF) == 0xF || (flags & 0x103) == 0x103;
  }

  // Fails unless the controller holds just this, unchanged, and every lock is free.
  void expect_equal(scsiplugin::PluginServerCtrl* ctrl) const {
    EXPECT_TRUE(is_free(ctrl->client_mutex));
    EXPECT_TRUE(is_free(ctrl->task_mutex));
    EXPECT_EQ(test::the_conf().loads, test::the_conf().frees);
    EXPECT_EQ(test::the_conf().records_alive, 0);
    {
      const scsiplugin::mutex_lock lock(ctrl->client_mutex);
      EXPECT_EQ(
          static_cast<std::size_t>(std::distance(ctrl->client_map.begin(), ctrl->client_map.end())),
          hosts.size());
    }
    for (const auto& [plugin_id, host] : hosts) {
      scsiplugin::plugin_client& record = *host->record;
      EXPECT_EQ(ctrl->client_map.find(plugin_id), host->record) << plugin_id;
      EXPECT_EQ(host->record.use_count(), 2) << plugin_id;
      EXPECT_TRUE(is_free(record.wait_mutex)) << plugin_id;
      EXPECT_TRUE(is_free(record.write_mutex)) << plugin_id;
      const scsiplugin::mutex_lock lock(record.write_mutex);
      EXPECT_EQ(record.running, !host->released) << plugin_id;
    }
    {
      const scsiplugin::mutex_lock lock(ctrl->task_mutex);
      EXPECT_EQ(
          static_cast<std::size_t>(std::distance(ctrl->task_map.begin(), ctrl->task_map.end())),
          handshakes.size());
    }
    for (const auto& [key, handshake] : handshakes) {
      const auto task = ctrl->find_task(key);
      ASSERT_TRUE(task) << key;
      EXPECT_TRUE(is_free(task->mutex)) << key;
      EXPECT_EQ(task->state, handshake->state) << key;
      EXPECT_EQ(task->task_id, key);
      EXPECT_EQ(task->plugin_id, "") << key;
      EXPECT_EQ(task->create_time, handshake->created) << key;
    }
  }

  std::map<std::string, std::unique_ptr<host>> hosts;
  std::map<std::string, std::shared_ptr<handshake>> handshakes;

 private:
  // The flags of the LUN; 0, which supports nothing, when it cannot be found.
  std::uint32_t flags_of(const std::string& lun, int type) const {
    for (std::size_t i = 0; i < kInventory.size() && !test::the_conf().fails; ++i) {
      if (type == 1 && lun == kInventory[i].first) return kInventory[i].second;
      if (type == 2 && lun == kNaa[i]) return kInventory[i].second;
    }
    return 0;
  }

  // Whether nobody holds it.
  static bool is_free(std::mutex& mutex) {
    return std::unique_lock<std::mutex>(mutex, std::try_to_lock).owns_lock();
  }
};

}  // namespace vexo::fuzz

#endif  // FUZZ_CONTROLLER_MODEL_H_

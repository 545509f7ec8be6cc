#include "controller_model.h"

#include <gtest/gtest.h>

#include <iterator>
#include <mutex>

#include "fake_conf.h"

namespace vexo::fuzz {

using namespace scsiplugin;

namespace {

// The page-83h identifiers of kInventory.
constexpr const char* kNaa[] = {"60014051a2b3c4dd5e6fd7a8bd9c0dde",
                                "6001405c3d9e8b1d2f64d4b7ad9e05d7",
                                "60014050e984725dc51cd4bf4d9960de"};

// Whether nobody holds it.
bool is_free(std::mutex& mutex) {
  return std::unique_lock<std::mutex>(mutex, std::try_to_lock).owns_lock();
}

}  // namespace

std::shared_ptr<handshake> controller_model::begin(const std::string& key) {
  const auto existing = find(key);
  if (existing && the_time().now - existing->created < std::chrono::seconds(300)) return nullptr;
  return handshakes[key] = std::make_shared<handshake>(handshake{the_time().now});
}

std::shared_ptr<handshake> controller_model::find(const std::string& key) const {
  const auto found = handshakes.find(key);
  return found == handshakes.end() ? nullptr : found->second;
}

bool controller_model::move(const std::string& key, task_state next) {
  const auto found = find(key);
  if (found) found->state = next;
  return found != nullptr;
}

bool controller_model::is_mirror_done(const std::string& key, int type) {
  const auto found = find(key);
  const std::uint32_t flags = flags_of(key, type);
  if (!found || flags == 0) return false;
  if ((flags & 0x103) == 0x103) found->state = TASK_MIRROR_DONE;
  return found->state == TASK_MIRROR_DONE;
}

bool controller_model::mirror_done(const std::string& key) {
  const auto found = find(key);
  if (!found || found->state != TASK_MIRROR_STARTED) return false;
  found->state = TASK_MIRROR_DONE;
  return true;
}

bool controller_model::is_lun_support(const std::string& lun, int type) const {
  const std::uint32_t flags = flags_of(lun, type);
  return (flags & 0xF) == 0xF || (flags & 0x103) == 0x103;
}

std::uint32_t controller_model::flags_of(const std::string& lun, int type) const {
  for (std::size_t i = 0; i < kInventory.size() && !test::the_conf().fails; ++i) {
    if (type == 1 && lun == kInventory[i].first) return kInventory[i].second;
    if (type == 2 && lun == kNaa[i]) return kInventory[i].second;
  }
  return 0;
}

void controller_model::expect_equal(PluginServerCtrl* ctrl) const {
  EXPECT_TRUE(is_free(ctrl->client_mutex));
  EXPECT_TRUE(is_free(ctrl->task_mutex));
  EXPECT_EQ(test::the_conf().loads, test::the_conf().frees);
  EXPECT_EQ(test::the_conf().records_alive, 0);
  {
    const mutex_lock lock(ctrl->client_mutex);
    EXPECT_EQ(
        static_cast<std::size_t>(std::distance(ctrl->client_map.begin(), ctrl->client_map.end())),
        hosts.size());
  }
  for (const auto& [plugin_id, host] : hosts) {
    plugin_client& record = *host->record;
    EXPECT_EQ(ctrl->client_map.find(plugin_id), host->record) << plugin_id;
    EXPECT_EQ(host->record.use_count(), 2) << plugin_id;
    EXPECT_TRUE(is_free(record.wait_mutex)) << plugin_id;
    EXPECT_TRUE(is_free(record.write_mutex)) << plugin_id;
    const mutex_lock lock(record.write_mutex);
    EXPECT_EQ(record.running, !host->released) << plugin_id;
  }
  {
    const mutex_lock lock(ctrl->task_mutex);
    EXPECT_EQ(static_cast<std::size_t>(std::distance(ctrl->task_map.begin(), ctrl->task_map.end())),
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

}  // namespace vexo::fuzz

#include "plugin_agent.h"

#include <google/protobuf/util/json_util.h>
#include <sys/stat.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <utility>

namespace vexo::test {

namespace fs = std::filesystem;

namespace {

constexpr char kHook[] = R"(#!/bin/sh
name=${0##*/}
state=${0%/*}/.state
echo "$name $1" >> "$state/runs"
if [ -e "$state/block.$name.$1" ]; then
  touch "$state/blocked"
  while [ -e "$state/block.$name.$1" ]; do sleep 0.02; done
fi
[ -e "$state/fail.$name.$1" ] && exit 3
case $1 in
  freeze) touch "$state/frozen.$name" ;;
  thaw) rm -f "$state/frozen.$name" ;;
esac
exit 0
)";

bool wait_for(const std::function<bool()>& reached) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!reached()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

void touch(const std::string& path) { std::ofstream(path, std::ios::app).flush(); }

}  // namespace

hook_directory::hook_directory() : path_("/tmp/hooks") {
  fs::create_directories(path_ + "/.state");
}

hook_directory::~hook_directory() { fs::remove_all(path_); }

void hook_directory::add(const std::string& name, mode_t mode) {
  const std::string file = path_ + "/" + name;
  std::ofstream(file) << kHook;
  EXPECT_EQ(chmod(file.c_str(), mode), 0);
}

void hook_directory::fail(const std::string& name, const std::string& phase) {
  touch(state("fail." + name + "." + phase));
}

void hook_directory::block(const std::string& name, const std::string& phase) {
  touch(state("block." + name + "." + phase));
}

void hook_directory::unblock() {
  for (const auto& entry : fs::directory_iterator(path_ + "/.state")) {
    if (entry.path().filename().string().starts_with("block")) fs::remove(entry);
  }
}

bool hook_directory::wait_until_blocked() const {
  return wait_for([&] { return fs::exists(state("blocked")); });
}

std::vector<std::string> hook_directory::take_runs() {
  std::ifstream file(state("runs"));
  std::vector<std::string> runs;
  for (std::string line; std::getline(file, line);) runs.push_back(line);
  fs::remove(state("runs"));
  return runs;
}

bool hook_directory::is_frozen(const std::string& name) const {
  return fs::exists(state("frozen." + name));
}

bool hook_directory::wait_until_thawed(const std::string& name) const {
  return wait_for([&] { return !is_frozen(name); });
}

void PluginAgent::SetUp() {
  sandboxed::SetUp();
  if (!IsSkipped()) log = std::make_unique<dev_log>();
}

void PluginAgent::TearDown() {
  daemon.reset();
  log.reset();
  fs::remove_all("/run/plugin_agent");
}

void PluginAgent::start_daemon() {
  daemon.reset();
  daemon = std::make_unique<daemon_process>(log.get());
  call = std::make_unique<caller>(vexo::test::connect(kUnixTarget));
}

std::unique_ptr<program> PluginAgent::start_agent(std::vector<std::string> options, bool serves) {
  std::vector<std::string> line = {PLUGIN_AGENT, "--appliance", "127.0.0.1", "--lun", kLun};
  line.insert(line.end(), options.begin(), options.end());
  const std::vector<std::pair<std::string, std::string>> defaults = {{"--plugin-id", "host"},
                                                                     {"--poll", "0.05"}};
  for (const auto& [name, value] : defaults) {
    if (std::find(options.begin(), options.end(), name) == options.end()) {
      line.insert(line.end(), {name, value});
    }
  }
  auto agent = std::make_unique<program>(line);
  if (serves) {
    EXPECT_TRUE(agent->wait_for_err("subscribed to 127.0.0.1:3265")) << agent->err();
  }
  return agent;
}

void PluginAgent::leave(program& agent) {
  agent.signal(SIGTERM);
  EXPECT_EQ(agent.wait(), 0) << agent.err();
}

void PluginAgent::go_to_split(const std::string& lun) {
  ASSERT_TRUE(announce(lun));
  ASSERT_TRUE(call->publish(mirror_done(lun)));
  ASSERT_TRUE(call->publish(wait_for_depart(lun)));
}

void PluginAgent::whole_handshake(const std::string& lun) {
  go_to_split(lun);
  ASSERT_TRUE(call->publish(depart_done(lun)));
}

tools::HandshakeRecord PluginAgent::record(program& agent, std::size_t index) {
  tools::HandshakeRecord found;
  EXPECT_TRUE(wait_for([&] {
    std::istringstream lines(agent.err());
    std::size_t seen = 0;
    for (std::string line; std::getline(lines, line);) {
      if (!line.starts_with('{') || seen++ < index) continue;
      return google::protobuf::util::JsonStringToMessage(line, &found).ok();
    }
    return false;
  })) << "no record in\n"
      << agent.err();
  return found;
}

pid_t guardian_of(pid_t agent) {
  std::ostringstream tasks;
  for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(agent) + "/task")) {
    std::ifstream children(task.path() / "children");
    for (pid_t child = 0; children >> child;) {
      std::string name;
      std::getline(std::ifstream("/proc/" + std::to_string(child) + "/comm"), name);
      if (name == "agent_guardian") return child;
    }
  }
  return -1;
}

}  // namespace vexo::test

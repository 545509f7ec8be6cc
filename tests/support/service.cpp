#include "service.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <vector>

#include "captured_syslog.h"
#include "fake_conf.h"

namespace vexo::test {

using namespace scsiplugin;

namespace {

void wait_until(const std::string& what, const std::function<bool()>& reached) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!reached()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << what;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// Whether the thread is in a futex call on an address within `object`.
template <typename T>
bool sleeps_on(pid_t thread, const T& object) {
  std::ifstream syscall("/proc/self/task/" + std::to_string(thread) + "/syscall");
  long number = 0;
  std::uintptr_t address = 0;
  if (!(syscall >> number >> std::hex >> address)) return false;
  const auto begin = reinterpret_cast<std::uintptr_t>(&object);
  return number == SYS_futex && address >= begin && address < begin + sizeof object;
}

}  // namespace

service_host::service_host() {
  g_plugin_server_ctrl = std::make_shared<PluginServerCtrl>();
  the_conf().reset();
  captured_syslog().clear();

  std::string name = std::filesystem::temp_directory_path() / "plugin_server_test.XXXXXX";
  EXPECT_NE(mkdtemp(name.data()), nullptr);
  directory_ = name;
  unix_target = "unix://" + directory_ + "/sock";

  int ipv4_port = 0;
  int ipv6_port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &ipv4_port);
  builder.AddListeningPort(unix_target, grpc::InsecureServerCredentials());
  if (std::ifstream("/proc/net/if_inet6").peek() != std::ifstream::traits_type::eof()) {
    builder.AddListeningPort("[::1]:0", grpc::InsecureServerCredentials(), &ipv6_port);
  }
  builder.RegisterService(&service_);
  server_ = builder.BuildAndStart();
  EXPECT_NE(server_, nullptr);
  ipv4_target = "127.0.0.1:" + std::to_string(ipv4_port);
  if (ipv6_port != 0) ipv6_target = "[::1]:" + std::to_string(ipv6_port);
  call = std::make_unique<caller>(dial());
}

service_host::~service_host() {
  std::vector<std::string> left;
  {
    const mutex_lock lock(ctrl().client_mutex);
    for (const auto& [plugin_id, client] : ctrl().client_map) left.push_back(plugin_id);
  }
  for (const auto& plugin_id : left) call->unsubscribe(plugin_id);
  server_->Shutdown(std::chrono::system_clock::now());
  EXPECT_EQ(the_conf().records_alive(), 0);
  EXPECT_EQ(the_conf().loads(), the_conf().frees());
  std::filesystem::remove_all(directory_);
}

std::unique_ptr<subscriber> service_host::subscribe(const std::string& plugin_id,
                                                    PluginClient::Type type) {
  const std::string connected = "Connected: Plugin ID=" + plugin_id + " ";
  const std::size_t before = captured_syslog().count(connected);
  auto host = std::make_unique<subscriber>(dial(), plugin_id, type);
  wait_until("no connection of " + plugin_id,
             [&] { return captured_syslog().count(connected) > before; });
  wait_until_waiting(plugin_id);
  return host;
}

void service_host::wait_until_waiting(const std::string& plugin_id) {
  wait_until("no waiting Subscribe call of " + plugin_id, [&] {
    const auto lines = captured_syslog().lines();
    const auto last = std::find_if(lines.rbegin(), lines.rend(), [&](const auto& line) {
      return line.text.find("Connected: Plugin ID=" + plugin_id + " ") != std::string::npos;
    });
    const auto client = ctrl().client_map.find(plugin_id);
    return last != lines.rend() && client && sleeps_on(last->thread, client->cond);
  });
}

void service_host::wait_until_cancelled(const std::string& plugin_id) {
  wait_until("the call of " + plugin_id + " is still alive", [&] {
    const mutex_lock lock(ctrl().client_mutex);
    const auto client = ctrl().client_map.find(plugin_id);
    return client && client->context->IsCancelled();
  });
}

std::unique_lock<std::mutex> service_host::stall(const std::string& plugin_id) {
  return std::unique_lock<std::mutex>(ctrl().client_map.find(plugin_id)->write_mutex);
}

void service_host::wait_until_registry_is_held() {
  std::mutex& registry = ctrl().client_mutex;
  wait_until("nobody holds the registry",
             [&] { return !std::unique_lock<std::mutex>(registry, std::try_to_lock).owns_lock(); });
}

}  // namespace vexo::test

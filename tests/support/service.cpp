#include "service.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <future>
#include <thread>
#include <vector>

#include "captured_syslog.h"
#include "fake_conf.h"

namespace vexo::test {

using namespace scsiplugin;

int sleepers(const void* object, std::size_t size) {
  const auto begin = reinterpret_cast<std::uintptr_t>(object);
  int count = 0;
  for (const auto& thread : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream call(thread.path() / "syscall");  // which it is in, and that call's arguments
    long number = 0;
    std::uintptr_t address = 0;
    if (!(call >> number >> std::hex >> address) || number != SYS_futex) continue;
    if (address >= begin && address < begin + size) ++count;
  }
  return count;
}

bool is_held(std::mutex& mutex) {
  return std::async(
             std::launch::async,
             [&] { return !std::unique_lock<std::mutex>(mutex, std::try_to_lock).owns_lock(); })
      .get();
}

void wait_until(const std::string& what, const std::function<bool()>& reached) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!reached()) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline) << what;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

service_host::service_host() {
  g_plugin_server_ctrl = std::make_shared<PluginServerCtrl>();
  the_conf().reset();
  captured_syslog().clear();

  int ipv4_port = 0;
  grpc::ServerBuilder builder;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &ipv4_port);
  builder.RegisterService(&service_);
  server_ = builder.BuildAndStart();
  EXPECT_NE(server_, nullptr);
  ipv4_target = "127.0.0.1:" + std::to_string(ipv4_port);
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
  EXPECT_EQ(the_conf().records_alive, 0);
  EXPECT_EQ(the_conf().loads, the_conf().frees);
}

std::unique_ptr<subscriber> service_host::subscribe(const std::string& plugin_id,
                                                    PluginClient::Type type) {
  const auto before = ctrl().get_client(plugin_id);
  auto host = std::make_unique<subscriber>(dial(), plugin_id, type);
  wait_until("no connection of " + plugin_id,
             [&] { return ctrl().get_client(plugin_id) != before; });
  wait_until_waiting(plugin_id);
  return host;
}

void service_host::wait_until_waiting(const std::string& plugin_id) {
  wait_until("no waiting Subscribe call of " + plugin_id, [&] {
    const auto client = ctrl().client_map.find(plugin_id);
    return client && sleepers(&client->cond, sizeof client->cond) > 0;
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

void service_host::wait_until_needed(const std::unique_lock<std::mutex>& held) {
  wait_until("nobody needs what is held",
             [&] { return sleepers(held.mutex(), sizeof *held.mutex()) > 0; });
}

}  // namespace vexo::test

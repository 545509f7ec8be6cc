#ifndef TESTS_SUPPORT_SERVICE_H_
#define TESTS_SUPPORT_SERVICE_H_

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "calls.h"
#include "log_lines.h"
#include "plugin_service_impl.h"
#include "subscriber.h"

namespace vexo::test {

// How many threads sleep on a lock or a condition variable.
int sleepers(const void* object, std::size_t size);
// Whether any thread holds it, this one included.
bool is_held(std::mutex& mutex);
// Fails the test, saying `what`, when it is not `reached` in kPatience.
void wait_until(const std::string& what, const std::function<bool()>& reached);

// The real service behind a real server in the test's own process, with a new controller and an IPv4
// port of its own; over the fake configuration and the captured syslog.
class service_host {
 public:
  service_host();
  ~service_host();  // ends every subscription, then the server
  service_host(const service_host&) = delete;
  service_host& operator=(const service_host&) = delete;

  // A new connection to the server's IPv4 port.
  std::shared_ptr<grpc::Channel> dial() const { return connect(ipv4_target); }

  // Opens a subscription and waits until the server has it waiting.
  std::unique_ptr<subscriber> subscribe(
      const std::string& plugin_id,
      scsiplugin::PluginClient::Type type = scsiplugin::PluginClient::UNKNOWN);
  // Waits until the handler of the registered Subscribe call sleeps on its record's condition
  // variable. Only from then on does a release wake it.
  static void wait_until_waiting(const std::string& plugin_id);
  // Waits until the server has noticed that the subscriber's call was cancelled.
  static void wait_until_cancelled(const std::string& plugin_id);

  // Makes the host one that takes no data: a push to it blocks, and so does its release, until the
  // result is unlocked.
  static std::unique_lock<std::mutex> stall(const std::string& plugin_id);
  // Waits until a thread sleeps because it needs this lock.
  static void wait_until_needed(const std::unique_lock<std::mutex>& held);

  static scsiplugin::PluginServerCtrl& ctrl() { return *scsiplugin::g_plugin_server_ctrl; }

  std::string ipv4_target;
  std::unique_ptr<caller> call;

 private:
  scsiplugin::PluginServiceImpl service_;
  std::unique_ptr<grpc::Server> server_;
};

// A test with its own service.
class service : public testing::Test, protected service_host {};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_SERVICE_H_

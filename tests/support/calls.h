#ifndef TESTS_SUPPORT_CALLS_H_
#define TESTS_SUPPORT_CALLS_H_

#include <grpcpp/grpcpp.h>

#include <memory>
#include <string>

#include "plugin_service.grpc.pb.h"

namespace vexo::test {

// The wire's requests, by what a test says about them.
scsiplugin::LunCmd is_lun_support(const std::string& lun, scsiplugin::LunType type);
scsiplugin::LunCmd is_mirror_done(const std::string& lun, scsiplugin::LunType type);
scsiplugin::LunCmd start_mirror(const std::string& lun);
scsiplugin::LunCmd depart_relation(const std::string& lun);
scsiplugin::PluginCmd init_snapshot(const std::string& key);
scsiplugin::PluginCmd mirror_done(const std::string& key);
scsiplugin::PluginCmd wait_for_depart(const std::string& key);
scsiplugin::PluginCmd depart_done(const std::string& key);

// A server's five methods, each call with a deadline. Any thread may call.
class caller {
 public:
  explicit caller(const std::shared_ptr<grpc::Channel>& channel);

  // The verdict; a call that does not end with OK fails the test.
  bool lun_op(const scsiplugin::LunCmd& request);
  bool publish(const scsiplugin::PluginCmd& request);
  void unsubscribe(const std::string& plugin_id);
  scsiplugin::PluginClientList list();

  // The status, and the whole response.
  grpc::Status lun_op(const scsiplugin::LunCmd& request, scsiplugin::LunCmdResp* response);
  grpc::Status publish(const scsiplugin::PluginCmd& request, scsiplugin::PluginCmdResp* response);

 private:
  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_CALLS_H_

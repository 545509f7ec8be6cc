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

// A server's unary methods, each call with a deadline. A call that does not end with OK fails the
// test. Any thread may call.
class caller {
 public:
  explicit caller(const std::shared_ptr<grpc::Channel>& channel);

  // The whole response, or its verdict.
  scsiplugin::LunCmdResp ask(const scsiplugin::LunCmd& request);
  scsiplugin::PluginCmdResp ask(const scsiplugin::PluginCmd& request);
  bool lun_op(const scsiplugin::LunCmd& request) { return ask(request).success(); }
  bool publish(const scsiplugin::PluginCmd& request) { return ask(request).success(); }
  void unsubscribe(const std::string& plugin_id);
  scsiplugin::PluginClientList list();

 private:
  template <typename Request, typename Response>
  Response call(grpc::Status (scsiplugin::PluginService::Stub::*method)(grpc::ClientContext*,
                                                                        const Request&, Response*),
                const Request& request);

  std::unique_ptr<scsiplugin::PluginService::Stub> stub_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_CALLS_H_

#include "plugin_agent/handshake_check.h"

#include <algorithm>
#include <utility>

#include "common/channel.h"

namespace vexo::tools {

handshake_check::handshake_check(std::shared_ptr<scsiplugin::PluginService::Stub> daemon,
                                 const std::string& lun, event& news)
    : daemon_(std::move(daemon)) {
  scsiplugin::PluginCmd question;
  question.set_task_id(lun);
  question.mutable_wait_for_depart_req();
  thread_ = std::jthread([this, &news, question = std::move(question)] {
    over_ = std::all_of(calls_.begin(), calls_.end(), [&](grpc::ClientContext& call) {
      set_timeout(call, kCallTimeout);
      scsiplugin::PluginCmdResp answer;
      return daemon_->Publish(&call, question, &answer).ok() && !answer.success();
    });
    if (over_) news.raise();
  });
}

handshake_check::~handshake_check() {
  for (auto& call : calls_) call.TryCancel();
}

}  // namespace vexo::tools

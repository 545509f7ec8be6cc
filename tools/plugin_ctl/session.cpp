#include "session.h"

#include <cstdio>

#include "common/daemon_log.h"

namespace vexo::tools {

call_options session::limits(std::chrono::milliseconds otherwise) const {
  call_options options;
  options.timeout = timeout.value_or(otherwise);
  return options;
}

grpc::Channel& session::channel() {
  if (!channel_) channel_ = make_channel(where);
  return *channel_;
}

service_stub& session::stub() {
  channel();
  if (!stub_) stub_ = scsiplugin::PluginService::NewStub(channel_);
  return *stub_;
}

void session::connect(const std::string& what) {
  using google::protobuf::Empty;
  using scsiplugin::PluginClientList;
  using std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kSlice{50};
  const auto deadline = steady_clock::now() + limits().timeout;
  while (steady_clock::now() < deadline && !stop.requested()) {
    const auto state = channel().GetState(true);
    if (state == GRPC_CHANNEL_READY) return;
    if (state == GRPC_CHANNEL_TRANSIENT_FAILURE) {
      // The channel does not tell why it failed, but a call on it ends at once with the reason.
      const auto list =
          call<Empty, PluginClientList>(stub(), &service_stub::PluginConnList, Empty(), stop);
      if (!list.answered()) throw tool_error(no_answer(what, list.status));
    }
    channel().WaitForStateChange(state, std::chrono::system_clock::now() + kSlice);
  }
  if (stop.requested()) {
    throw tool_error(interrupted(what));
  }
  throw tool_error(
      no_answer(what, grpc::Status(grpc::StatusCode::DEADLINE_EXCEEDED, "no connection in time")));
}

problem session::no_answer(const std::string& what, const grpc::Status& status) const {
  problem why = call_problem(what, where, status);
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
    const std::string host = last_pushed_host();
    if (!host.empty()) why.next += ". The last host that it pushed a command to: " + host;
  }
  return why;
}

std::string session::last_pushed_host() const {
  const bool is_here = where.kind == endpoint::family::unix_socket || where.host == kTcpEndpoint;
  return is_here ? tools::last_pushed_host() : "";
}

problem session::interrupted(const std::string& what, const std::string& next) const {
  return {exit_code::interrupted, what + " at " + where.text,
          "nothing before a signal ended the wait", next};
}

void say(const shown_text& text) { std::fprintf(stderr, "plugin_ctl: %s\n", text.c_str()); }

exit_code print_verdict(const session& with, const std::string& command, const std::string& id,
                        const google::protobuf::Message& answer, bool success,
                        const std::string& if_no) {
  if (with.format == output_format::json) {
    print(to_json(answer) + "\n");
  } else {
    table rows({"COMMAND", "ID", "ANSWER"});
    rows.add({command, id, success ? "yes" : "no"});
    print(rows.text());
  }
  if (success) return exit_code::done;
  say(problem{exit_code::refused, command + " for " + id + " at " + with.where.text,
              "the daemon's answer is no (success: false)", if_no}
          .text());
  return exit_code::refused;
}

}  // namespace vexo::tools

#include "plugin_guard/sweeper.h"

#include <syslog.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "common/channel.h"
#include "common/connection.h"
#include "common/errors.h"
#include "common/text.h"
#include "plugin_guard/daemon_process.h"

namespace vexo::tools {

using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;
using scsiplugin::PluginService;
using std::chrono::milliseconds;

namespace {

// Between the look that misses a host and the one that confirms it.
constexpr milliseconds kSecondLook{100};
constexpr milliseconds kLongestPatience = std::chrono::hours(1);

}  // namespace

sweeper::sweeper(endpoint where, milliseconds interval, milliseconds patience)
    : where_(std::move(where)),
      interval_(interval),
      patience_(patience),
      call_patience_(patience),
      thread_(&sweeper::run, this) {}

sweeper::~sweeper() {
  stop_.raise();
  {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    if (call_ != nullptr) call_->TryCancel();
  }
  thread_.join();
}

sweeper::view sweeper::look() const {
  const std::lock_guard lock(mutex_);
  return view_;
}

void sweeper::run() {
  do {
    if (stub_ || connect()) sweep();
  } while (!wait_for(stop_, stop_, interval_));
}

bool sweeper::connect() {
  unique_fd socket = begin_connection(where_);
  if (!socket) return false;
  const pid_t process = listener_of(socket.get());
  stub_ = PluginService::NewStub(make_channel(std::move(socket)));
  known_.clear();
  const std::lock_guard lock(mutex_);
  view_.process = process;
  return true;
}

void sweeper::sweep() {
  const auto first = missing();
  if (!first || first->empty() || wait_for(stop_, stop_, std::min(kSecondLook, interval_))) return;
  const auto second = missing();
  if (!second) return;
  for (const std::string& plugin_id : *second) {
    if (!first->contains(plugin_id)) continue;
    const auto last_look = clock::now();
    const auto listed = list();
    if (!listed) return;
    if (!listed->contains(plugin_id)) remove(plugin_id, last_look);
    if (!stub_) return;
  }
}

std::optional<sweeper::ids> sweeper::list() {
  PluginClientList response;
  if (!ask(&PluginService::Stub::PluginConnList, google::protobuf::Empty(), &response)) return {};
  ids listed;
  for (const PluginClient& host : response.list()) listed.insert(host.plugin_id());
  const std::lock_guard lock(mutex_);
  view_.hosts = listed.size();
  return listed;
}

std::optional<sweeper::ids> sweeper::missing() {
  const auto listed = list();
  if (!listed) return {};
  known_.insert(listed->begin(), listed->end());
  ids gone;
  std::set_difference(known_.begin(), known_.end(), listed->begin(), listed->end(),
                      std::inserter(gone, gone.end()));
  return gone;
}

void sweeper::remove(const std::string& plugin_id, clock::time_point last_look) {
  PluginClient request;
  request.set_plugin_id(plugin_id);
  google::protobuf::Empty response;
  if (!ask(&PluginService::Stub::UnSubscribe, request, &response)) return;
  known_.erase(plugin_id);
  const std::chrono::duration<double, std::milli> window = clock::now() - last_look;
  syslog(LOG_NOTICE, "swept \"%s\": no longer connected, unsubscribed %.2f ms after the last look",
         printable(plugin_id).c_str(), window.count());
  const std::lock_guard lock(mutex_);
  ++view_.sweeps;
}

template <class Request, class Response>
bool sweeper::ask(grpc::Status (PluginService::Stub::*method)(grpc::ClientContext*, const Request&,
                                                              Response*),
                  const Request& request, Response* response) {
  grpc::ClientContext context;
  set_timeout(context, call_patience_);
  if (!begin(&context)) return false;
  const grpc::Status status = (stub_.get()->*method)(&context, request, response);
  end(status);
  return status.ok();
}

bool sweeper::begin(grpc::ClientContext* call) {
  const std::lock_guard lock(mutex_);
  if (stopped_) return false;
  call_ = call;
  if (!view_.unanswered_since) view_.unanswered_since = clock::now();
  return true;
}

void sweeper::end(const grpc::Status& status) {
  const std::lock_guard lock(mutex_);
  call_ = nullptr;
  view_.has_asked = true;
  if (status.error_code() == grpc::StatusCode::DEADLINE_EXCEEDED) {
    call_patience_ = std::min(call_patience_ * 2, kLongestPatience);
    return;
  }
  call_patience_ = patience_;
  view_.unanswered_since.reset();
  if (!status.ok()) {
    stub_.reset();
    view_.hosts = 0;
  }
  // A lost connection is no error of the list: the watch finds out why.
  if (status.ok() || status.error_code() == grpc::StatusCode::UNAVAILABLE) {
    view_.error.clear();
    view_.error_code = grpc::StatusCode::OK;
    return;
  }
  if (view_.error_code != status.error_code()) view_.error_since = clock::now();
  view_.error = status_text(status);
  view_.error_code = status.error_code();
}

}  // namespace vexo::tools

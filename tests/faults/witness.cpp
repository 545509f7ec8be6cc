#include "witness.h"

#include <google/protobuf/util/json_util.h>
#include <gtest/gtest.h>

#include <future>
#include <utility>

#include "daemon.h"

namespace vexo::test {

using namespace scsiplugin;

namespace {

PluginCmd command_of(operation what, const std::string& key) {
  switch (what) {
    case operation::init_snapshot:
      return init_snapshot(key);
    case operation::mirror_done:
      return mirror_done(key);
    case operation::wait_for_depart:
      return wait_for_depart(key);
    default:
      return depart_done(key);
  }
}

LunCmd question_of(operation what, const std::string& key) {
  switch (what) {
    case operation::start_mirror:
      return start_mirror(key);
    case operation::is_mirror_done:
      return is_mirror_done(key, LUN_TYPE_80);
    default:
      return depart_relation(key);
  }
}

bool is_hosts(operation what) {
  return what == operation::start_mirror || what == operation::is_mirror_done ||
         what == operation::depart_relation;
}

words subscribe_command(words before, const std::string& plugin_id, const std::string& target) {
  const words subscribe = {PLUGIN_CTL, "--target", target,      "--timeout", "20",
                           "-o",       "json",     "subscribe", plugin_id};
  before.insert(before.end(), subscribe.begin(), subscribe.end());
  return before;
}

std::string stream_name(const std::string& plugin_id, std::size_t registered) {
  return plugin_id.substr(0, 20) + "#" + std::to_string(registered);
}

}  // namespace

answer witness_caller::ask(operation what, const std::string& key,
                           std::chrono::milliseconds patience, std::size_t padding) {
  recorded_call call = {};
  call.what = what;
  call.key = key;
  call.lun = lun_;
  grpc::Status status;
  bool success = false;
  if (is_hosts(what)) {
    LunCmdResp response;
    call.begin = history_->now();
    status = caller_.lun_op_status(question_of(what, key), patience, &response);
    success = response.success();
  } else {
    PluginCmd command = command_of(what, key);
    PluginCmdResp response;
    call.cmd_sn = history_->new_cmd_sn();
    command.set_cmd_sn(call.cmd_sn);
    command.set_qel_sn(std::string(padding, 'x'));
    call.begin = history_->now();
    status = caller_.publish_status(command, patience, &response);
    success = response.success();
    call.answered_task_id = response.init_snapshot_resp().task_id();
  }
  call.end = history_->now();
  call.verdict = !status.ok() ? answer::none : success ? answer::yes : answer::no;
  history_->add(call);
  return call.verdict;
}

bool witness_caller::whole_hand_shake(const std::string& key) {
  auto announced =
      std::async(std::launch::async, [&] { return says_yes(operation::init_snapshot, key); });
  // A host that answers: as soon as there is a task, though not for longer than the caller waits.
  const auto give_up = std::chrono::steady_clock::now() + kPatience;
  while (!says_yes(operation::start_mirror, key)) {
    if (std::chrono::steady_clock::now() > give_up) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (!announced.get() || !says_yes(operation::mirror_done, key)) return false;
  return says_yes(operation::is_mirror_done, key) && says_yes(operation::depart_relation, key) &&
         says_yes(operation::wait_for_depart, key) && says_yes(operation::depart_done, key);
}

witness_host::witness_host(history* to, const std::string& plugin_id, const std::string& target)
    : history_(to),
      plugin_id_(plugin_id),
      registered_(to->subscribing()),
      stream_(stream_name(plugin_id, registered_)),
      caller_(connect(kUnixTarget)),
      subscriber_(connect(target), plugin_id) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!caller_.is_listed(plugin_id)) {
    if (std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "host " << plugin_id << " is not listed";
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  history_->listed(registered_);
}

witness_host::~witness_host() {
  while (has_more()) next();
}

std::optional<PluginCmd> witness_host::next() {
  auto message = subscriber_.next_cmd();
  if (message) history_->add(stream_, plugin_id_, *message);
  return message;
}

void witness_host::unsubscribe() {
  history_->leaving(registered_);
  caller_.unsubscribe(plugin_id_);
}

host_process::host_process(history* to, const std::string& plugin_id, const std::string& target,
                           words before)
    : history_(to),
      plugin_id_(plugin_id),
      registered_(to->subscribing()),
      program_(subscribe_command(std::move(before), plugin_id, target)) {
  EXPECT_TRUE(program_.wait_for_err("subscribed to ")) << program_.err();
  history_->listed(registered_);
}

std::size_t host_process::received() {
  const std::string out = program_.out();
  for (std::size_t end = out.find('\n', parsed_); end != std::string::npos;
       end = out.find('\n', parsed_)) {
    PluginCmd message;
    EXPECT_TRUE(
        google::protobuf::util::JsonStringToMessage(out.substr(parsed_, end - parsed_), &message)
            .ok())
        << out;
    history_->add(stream_name(plugin_id_, registered_), plugin_id_, message);
    parsed_ = end + 1;
    ++received_;
  }
  return received_;
}

}  // namespace vexo::test

#include <algorithm>
#include <array>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "common/command_fields.h"
#include "common/event.h"
#include "common/plugin_type.h"
#include "common/subscribe_call.h"
#include "common/text.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::PluginClient;
using scsiplugin::PluginCmd;
using clock = std::chrono::steady_clock;

std::string now_text() {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  std::array<char, 16> text = {};
  std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
  return text.data();
}

// One row. The width of the columns is fixed, because rows are printed as they come.
shown_text command_row(const std::string& time, const std::string& name, const shown_text& fields) {
  constexpr std::size_t kLongestName = std::string_view("wait_for_depart_req").size();
  std::string row = time + "  " + name;
  row.append(kLongestName - std::min(kLongestName, name.size()) + 2, ' ');
  return printable(row) + fields + "\n";
}

shown_text fields_text(const PluginCmd& command) {
  shown_text text;
  for (const command_field& field : command_fields(command)) {
    if (field.is_zero) continue;
    if (!text.empty()) text += " ";
    text += printable(field.name) + "=" + printable(field.value);
  }
  return text;
}

// One run of the verb: subscribes, prints, and unsubscribes however it ends.
class subscriber {
 public:
  subscriber(session& with, PluginClient self) : with_(with), self_(std::move(self)) {}

  exit_code run() {
    warn_if_nothing_comes();
    const auto before = find_listed(with_.stub(), self_.plugin_id(), timeout());
    if (!before.status.ok()) throw no_list(before.status);
    if (before.entry) {
      say(quoted_id() + " is subscribed already, from " + printable(before.entry->ip()) +
          ": that subscription ends now");
    }
    if (with_.stop.requested()) return exit_code::interrupted;
    call_.emplace(with_.stub(), self_, timeout(),
                  [this](const PluginCmd& command) { receive(command); });
    try {
      confirm();
      return wait_for_end();
    } catch (const tool_error&) {
      leave();
      throw;
    }
  }

 private:
  std::chrono::milliseconds timeout() const { return with_.limits().timeout; }

  void warn_if_nothing_comes() const {
    if (with_.where.kind == endpoint::family::unix_socket ||
        with_.where.kind == endpoint::family::ipv6) {
      say("warning: the daemon pushes commands to IPv4 peers only, so none will come over " +
          printable(with_.where.text) +
          "; use --target with an IPv4 address of the appliance, or 127.0.0.1");
    }
  }

  tool_error no_list(const grpc::Status& status) const {
    return tool_error(with_.no_answer("PluginConnList", status));
  }

  // A signal does not end this: an UnSubscribe before the registration would be lost.
  void confirm() {
    const auto found = call_->confirm(timeout());
    if (found.entry) {
      say("subscribed to " + printable(with_.where.text) + " as " + quoted_id() +
          "; Ctrl-C unsubscribes and ends");
      if (found.entry->ip() == "Unknown" && with_.where.kind == endpoint::family::host_name) {
        say("warning: the connection is not over IPv4, so no commands will come; use --target "
            "with an IPv4 address of the appliance");
      }
      return;
    }
    if (call_->ended().raised()) return;
    if (!found.status.ok()) throw no_list(found.status);
    throw tool_error({exit_code::unreachable, "Subscribe at " + with_.where.text,
                      "the plugin is not listed within --timeout",
                      "see with `plugin_ctl probe` whether the daemon still answers"});
  }

  // On the call's thread.
  void receive(const PluginCmd& command) {
    try {
      if (!not_printed_) print_command(command);
    } catch (const tool_error& error) {
      not_printed_ = error;
      failed_.raise();
    }
  }

  exit_code wait_for_end() {
    with_.stop.wait({call_->ended().fd(), failed_.fd()}, clock::time_point::max());
    const bool ended = call_->ended().raised();  // looked at first: nothing is printed after that
    if (failed_.raised()) throw tool_error(*not_printed_);
    return ended ? after_end(call_->status()) : leave();
  }

  void print_command(const PluginCmd& command) {
    if (with_.format == output_format::json) {
      print(to_json(command) + "\n");
      return;
    }
    if (!heading_printed_) print(command_row("TIME    ", "COMMAND", "FIELDS"));
    heading_printed_ = true;
    const std::string name = command_name(command);
    print(command_row(now_text(), name.empty() ? "(none)" : name, fields_text(command)));
  }

  exit_code after_end(const grpc::Status& status) {
    if (status.ok()) {
      say("the daemon ended the subscription: " + quoted_id() +
          " was unsubscribed, or subscribed anew from elsewhere");
      return exit_code::done;
    }
    problem why = with_.no_answer("Subscribe", status);
    if (!call_->leave().ok()) why.next += "; " + leftover();
    say(why.text());
    return why.code;
  }

  exit_code leave() {
    if (const auto status = call_->leave(); !status.ok()) {
      problem why = with_.no_answer("UnSubscribe", status);
      why.next = leftover();
      say(why.text());
      return why.code;
    }
    say("unsubscribed " + quoted_id());
    return exit_code::interrupted;
  }

  shown_text quoted_id() const { return "\"" + printable(self_.plugin_id()) + "\""; }

  std::string leftover() const {
    return "if the daemon still runs, this plugin stays registered there and hangs the next "
           "snapshot: `plugin_ctl unsubscribe " +
           self_.plugin_id() + "` removes it";
  }

  session& with_;
  const PluginClient self_;
  bool heading_printed_ = false;           // by the call's thread
  std::optional<tool_error> not_printed_;  // written by the call's thread before failed_ is raised
  event failed_;
  std::optional<subscribe_call> call_;  // last: its thread uses the above
};

}  // namespace

void add_subscribe_verb(CLI::App& app, session& with) {
  const auto self = std::make_shared<PluginClient>();
  const auto type = std::make_shared<PluginClient::Type>(PluginClient::UNKNOWN);
  CLI::App* const verb = add_verb(
      app, with, "subscribe",
      "Subscribes as a host plugin does and prints each command as it comes, until Ctrl-C.\n"
      "Answers none of them: a snapshot that finds no other plugin waits for its host in vain.\n"
      "Without --target it connects to 127.0.0.1: over the unix socket nothing is pushed",
      "plugin_ctl subscribe watcher\n"
      "plugin_ctl --target 10.0.0.7 -o json subscribe watcher --type windows",
      [&with, self, type] {
        self->set_type(*type);
        if (!with.target_given) with.where = parse_endpoint(kTcpEndpoint);
        return subscriber(with, *self).run();
      });
  add_text(*verb, "PLUGIN_ID", *self->mutable_plugin_id(), "The id to subscribe under")->required();
  add_type_option(*verb, *type, "The type of host to subscribe as");
}

}  // namespace vexo::tools

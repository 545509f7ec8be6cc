#include <algorithm>
#include <array>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "common/command_fields.h"
#include "common/event.h"
#include "common/text.h"
#include "registry_verbs.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using google::protobuf::Empty;
using scsiplugin::PluginClient;
using scsiplugin::PluginClientList;
using scsiplugin::PluginCmd;
using clock = std::chrono::steady_clock;

// An open Subscribe call, read by a thread of its own. Its end cancels the call if nothing else has
// ended it.
class subscription {
 public:
  subscription(service_stub& stub, PluginClient request)
      : request_(std::move(request)), reader_([this, &stub] { read_all(stub); }) {}
  ~subscription() {
    context_.TryCancel();
    reader_.join();
  }
  subscription(const subscription&) = delete;
  subscription& operator=(const subscription&) = delete;

  // Readable when there is something new to see.
  int fd() const { return news_.fd(); }

  // The commands that came since the last look, in their order.
  std::deque<PluginCmd> take() {
    news_.take();
    const std::lock_guard lock(mutex_);
    return std::exchange(commands_, {});
  }

  // How the call ended, when it has; what came before is in take().
  std::optional<grpc::Status> status() {
    const std::lock_guard lock(mutex_);
    return status_;
  }

 private:
  void read_all(service_stub& stub) {
    const auto stream = stub.Subscribe(&context_, request_);
    PluginCmd command;
    while (stream->Read(&command)) {
      const std::lock_guard lock(mutex_);
      commands_.push_back(std::move(command));
      news_.raise();
    }
    const grpc::Status status = stream->Finish();
    const std::lock_guard lock(mutex_);
    status_ = status;
    news_.raise();
  }

  const PluginClient request_;
  grpc::ClientContext context_;
  event news_;
  std::mutex mutex_;
  std::deque<PluginCmd> commands_;      // under mutex_
  std::optional<grpc::Status> status_;  // under mutex_
  std::thread reader_;                  // last: it uses all of the above
};

std::string now_text() {
  const std::time_t now = std::time(nullptr);
  std::tm local = {};
  localtime_r(&now, &local);
  std::array<char, 16> text = {};
  std::strftime(text.data(), text.size(), "%H:%M:%S", &local);
  return text.data();
}

// Columns of a table that is never complete.
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

// One run of the verb: subscribes, prints, and never leaves the subscription behind.
class subscriber {
 public:
  subscriber(session& with, PluginClient self) : with_(with), self_(std::move(self)) {}

  exit_code run() {
    warn_if_nothing_comes();
    if (const auto entry = find_listed()) {
      say(quoted_id() + " is subscribed already, from " + printable(entry->ip()) +
          ": that subscription ends now");
    }
    if (with_.stop.requested()) return exit_code::interrupted;
    stream_.emplace(with_.stub(), self_);
    try {
      confirm();
      return receive();
    } catch (const tool_error&) {
      // As a vanished subscriber this one would hang the daemon's next broadcast.
      leave();
      throw;
    }
  }

 private:
  void warn_if_nothing_comes() const {
    if (with_.where.kind == endpoint::family::unix_socket ||
        with_.where.kind == endpoint::family::ipv6) {
      say("warning: the daemon pushes commands to IPv4 peers only, so none will come over " +
          printable(with_.where.text) +
          "; use --target with an IPv4 address of the appliance, or 127.0.0.1");
    }
  }

  // This id as the daemon lists it. Not ended by a signal: it is needed to leave in good order.
  std::optional<PluginClient> find_listed() {
    call_options options = with_.limits();
    options.undisturbed = options.timeout;
    const auto list = with_.ask<Empty, PluginClientList>(
        "PluginConnList", &service_stub::PluginConnList, Empty(), options);
    for (const PluginClient& entry : list.list()) {
      if (entry.plugin_id() == self_.plugin_id()) return entry;
    }
    return std::nullopt;
  }

  // The stream itself says nothing before the first command, so the list has to. An UnSubscribe
  // that came before the registration would be lost, so signals wait too.
  void confirm() {
    constexpr std::chrono::milliseconds kLookAgain{20};
    const auto deadline = clock::now() + with_.limits().timeout;
    while (clock::now() < deadline && !stream_->status()) {
      if (const auto entry = find_listed()) {
        say("subscribed to " + printable(with_.where.text) + " as " + quoted_id() +
            "; Ctrl-C unsubscribes and ends");
        if (entry->ip() == "Unknown" && with_.where.kind == endpoint::family::host_name) {
          say("warning: the connection is not over IPv4, so no commands will come; use --target "
              "with an IPv4 address of the appliance");
        }
        return;
      }
      std::this_thread::sleep_for(kLookAgain);
    }
    if (!stream_->status()) {
      throw tool_error({exit_code::unreachable, "Subscribe at " + with_.where.text,
                        "the plugin is not listed within --timeout",
                        "see with `plugin_ctl probe` whether the daemon still answers"});
    }
  }

  exit_code receive() {
    for (;;) {
      // The status first: what came before the end is then in take() for certain.
      const auto status = stream_->status();
      for (const PluginCmd& command : stream_->take()) print_command(command);
      if (status) return ended(*status);
      if (with_.stop.requested()) return leave();
      with_.stop.wait({stream_->fd()}, clock::time_point::max());
    }
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

  // The daemon's doing, or the network's.
  exit_code ended(const grpc::Status& status) {
    if (status.ok()) {
      say("the daemon ended the subscription: " + quoted_id() +
          " was unsubscribed, or subscribed anew from elsewhere");
      return exit_code::done;
    }
    problem why = call_problem("Subscribe", with_.where, status);
    if (!unsubscribe().ok()) why.next += "; " + leftover();
    say(why.text());
    return why.code;
  }

  // Unsubscribes, then sees the stream end. The daemon forgets a wake-up that comes before its
  // Subscribe handler waits for it, and the stream then stays open: it is registered no longer,
  // and is dropped by its destructor.
  exit_code leave() {
    constexpr std::chrono::milliseconds kEndsWithin{1000};
    const auto result = unsubscribe();
    if (!result.ok()) {
      problem why = call_problem("UnSubscribe", with_.where, result);
      why.next = leftover();
      say(why.text());
      return why.code;
    }
    const auto deadline = clock::now() + kEndsWithin;
    while (!stream_->status() && clock::now() < deadline) {
      stream_->take();
      // A second Ctrl-C changes nothing any more.
      with_.stop.wait({stream_->fd()}, deadline, with_.stop.count());
    }
    say("unsubscribed " + quoted_id());
    return exit_code::interrupted;
  }

  grpc::Status unsubscribe() {
    call_options options = with_.limits();
    options.undisturbed = options.timeout;
    return call<PluginClient, Empty>(with_.stub(), &service_stub::UnSubscribe, self_, with_.stop,
                                     options)
        .status;
  }

  shown_text quoted_id() const { return "\"" + printable(self_.plugin_id()) + "\""; }

  std::string leftover() const {
    return "if the daemon still runs, this plugin stays registered there and hangs the next "
           "snapshot: `plugin_ctl unsubscribe " +
           self_.plugin_id() + "` removes it";
  }

  session& with_;
  const PluginClient self_;
  std::optional<subscription> stream_;
  bool heading_printed_ = false;
};

}  // namespace

void add_subscribe_verb(CLI::App& app, session& with) {
  const auto self = std::make_shared<PluginClient>();
  const auto type = std::make_shared<std::string>("unknown");
  CLI::App* const verb = add_verb(
      app, with, "subscribe",
      "Subscribes as a host plugin does and prints each command as it comes, until Ctrl-C.\n"
      "Answers none of them: a snapshot that finds no other plugin waits for its host in vain",
      "plugin_ctl --target 127.0.0.1 subscribe watcher\n"
      "plugin_ctl --target 127.0.0.1 -o json subscribe watcher --type windows",
      [&with, self, type] {
        self->set_type(plugin_type_of(*type));
        return subscriber(with, *self).run();
      });
  add_text(*verb, "PLUGIN_ID", *self->mutable_plugin_id(), "The id to subscribe under")->required();
  verb->add_option("--type", *type, "The kind of host to pass for")
      ->check(CLI::IsMember({"vmware", "windows", "unknown"}))
      ->type_name("TYPE")
      ->capture_default_str();
}

}  // namespace vexo::tools

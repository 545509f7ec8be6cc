#ifndef TESTS_FAULTS_WITNESS_H_
#define TESTS_FAULTS_WITNESS_H_

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include "calls.h"
#include "history.h"
#include "program.h"
#include "subscriber.h"

namespace vexo::test {

// Either party of hand-shakes; every question and its answer goes to the history. Any thread may
// call.
class witness_caller {
 public:
  witness_caller(history* to, const std::string& target) : history_(to), caller_(connect(target)) {}

  // A command or question about the LUN `key`. `padding` bytes travel along in a field that the
  // daemon hands on without reading it.
  answer ask(operation what, const std::string& key,
             std::chrono::milliseconds patience = std::chrono::seconds(150),
             std::size_t padding = 0);
  bool says_yes(operation what, const std::string& key) { return ask(what, key) == answer::yes; }
  // The local caller's and the host's steps, in turn; whether each was answered with yes.
  bool whole_hand_shake(const std::string& key);

  // What the configuration says of every LUN that is asked about from now on.
  void set_lun(lun_kind lun) { lun_ = lun; }
  // Calls that are part of no hand-shake.
  caller& plain() { return caller_; }

 private:
  history* history_;
  caller caller_;
  std::atomic<lun_kind> lun_ = lun_kind::mirrored;
};

// A host plugin of this process; what it receives goes to the history.
class witness_host {
 public:
  // Returns when the daemon lists it.
  witness_host(history* to, const std::string& plugin_id, const std::string& target);
  ~witness_host();
  witness_host(const witness_host&) = delete;
  witness_host& operator=(const witness_host&) = delete;

  // The next message, waiting for it; empty when none came.
  std::optional<scsiplugin::PluginCmd> next();
  // Whether there is one that has come and was not yet taken.
  bool has_more() { return subscriber_.cmds_waiting() > 0; }
  // Takes it out of the registry.
  void unsubscribe();
  subscriber& stream() { return subscriber_; }

 private:
  history* history_;
  const std::string plugin_id_;
  const std::size_t registered_;
  const std::string stream_;
  caller caller_;
  subscriber subscriber_;
};

// A host plugin that is a process of its own, to be stopped or killed: `plugin_ctl subscribe`.
class host_process {
 public:
  // `before` is put in front of its command line. Returns when it is subscribed.
  host_process(history* to, const std::string& plugin_id, const std::string& target,
               words before = {});

  program& process() { return program_; }
  // Messages printed so far; those that are new go to the history.
  std::size_t received();
  // For the history: its UnSubscribe is about to be sent.
  void leaving() { history_->leaving(registered_); }

 private:
  history* history_;
  const std::string plugin_id_;
  const std::size_t registered_;
  program program_;
  std::size_t parsed_ = 0;  // characters of its output
  std::size_t received_ = 0;
};

}  // namespace vexo::test

#endif  // TESTS_FAULTS_WITNESS_H_

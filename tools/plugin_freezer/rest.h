#ifndef TOOLS_PLUGIN_FREEZER_REST_H_
#define TOOLS_PLUGIN_FREEZER_REST_H_

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "freezer.pb.h"
#include "plugin_freezer/file_system.h"
#include "plugin_freezer/outside.h"
#include "plugin_freezer/turn.h"

namespace vexo::tools {

// One rest of the host, from the first `freeze` hook to the last thing that has to be thawed, by
// whoever has the turn. Each step is written down before it is made, so that another freezer can
// undo what this one no longer can.
class rest {
 public:
  using clock = std::chrono::steady_clock;

  // A rest that is to begin. Throws std::runtime_error when a file system cannot be opened.
  rest(outside& world, turn& right, const FreezerPlan& plan);
  // One that somebody else has left, or is in.
  rest(outside& world, turn& right, RestRecord left);

  // The whole of the first kind. Returns when everything is undone.
  void run();
  // Of the first kind, without any rest: only `thaw` of its hooks, after their `prepare`.
  void undo_prepare();
  // The whole of the second kind. False when something may still be frozen.
  bool recover();
  // Of the second kind, whoever has the turn: only the file systems, and nothing is written down.
  void thaw_file_systems();

 private:
  // Why a rest ends.
  struct over : std::runtime_error {
    over(const std::string& reason, bool is_asked) : std::runtime_error(reason), asked(is_asked) {}
    bool asked;  // otherwise the members' commands run first
  };
  struct volume {
    RestRecord::FileSystem facts;
    unique_fd root;  // empty in what somebody else has left
    bool may_be_frozen = false;
    child* freezing = nullptr;  // a FIFREEZE that was not waited for to the end, or is under way
    child* thawing = nullptr;
  };

  void freeze_hooks();
  void freeze_file_systems();
  // Of a FIFREEZE that has ended: its errno, or kKilled and more.
  static int frozen(volume& one);
  // Throws `over` when there is a reason to end.
  void check();
  // Blocks while it runs, with check().
  void await_freezing(const child& step);
  // Answers requests that can be answered at any time. True when somebody has asked for the end.
  bool answer_requests(bool at_rest);
  // When a thaw that nobody asks for begins: at the deadline, or so long before that the members'
  // commands can run.
  clock::time_point limit() const;
  clock::time_point deadline() const { return from_ms(record_.begun()) + max_freeze(); }
  std::chrono::milliseconds max_freeze() const {
    return std::chrono::milliseconds(record_.plan().max_freeze_ms());
  }

  void thaw(bool asked);
  void run_commands();
  void thaw_again();
  void start_thawing(volume& one);
  void settle(volume& one);
  // Runs `thaw` of these, which are in the order of freezing; returns those that have failed.
  std::vector<int> thaw_hooks(const std::vector<int>& which);
  void await_lingering(clock::time_point until);
  // Processes that may freeze or thaw something yet.
  std::vector<process> unfinished();
  // Waits for them, and undoes what they have frozen.
  void watch();
  void tell_thawed();
  void write_record();
  void write_processes(const std::vector<process>& all);

  child& start_hook(int index, const std::string& phase, clock::duration timeout);
  void report_hook(int index, const std::string& phase, const child& run);

  outside& world_;
  turn& turn_;
  const bool is_ours_;
  RestRecord record_;
  std::vector<std::string> environment_;
  std::vector<volume> volumes_;
  bool is_stacked_ = true;        // the volumes have to be frozen one after the other
  std::string disturbed_;         // a mount point that somebody else has thawed
  bool is_told_to_thaw_ = false;  // by the agent, whoever has joined
  std::string reason_;            // why the host was not at rest all the time; empty when it was
  bool certain_ = true;           // that everything is thawed
  child* freezing_ = nullptr;     // the step under way
  bool is_told_ = false;          // that the host is thawed
  bool is_late_ = false;          // a killed step outlasts the thaw
  clock::time_point thawed_at_;
};

// For the members' commands, before a thaw that nobody has asked for.
inline constexpr std::chrono::milliseconds kCommandTime{1000};

// What child::exit_code is at least when a call was killed; less is its errno.
inline constexpr int kKilled = 128;
std::string failure_text(int error);

// As in "1.5 s".
std::string seconds_text(std::chrono::milliseconds time);

// The `prepare` hooks, one after the other, until one fails or the agent wants no more. How many
// were begun.
int run_prepare_hooks(outside& world, const FreezerPlan& plan);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_REST_H_

#ifndef TOOLS_PLUGIN_FREEZER_REST_H_
#define TOOLS_PLUGIN_FREEZER_REST_H_

#include <chrono>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "freezer.pb.h"
#include "plugin_freezer/event_loop.h"
#include "plugin_freezer/file_system.h"
#include "plugin_freezer/monotonic_ms.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {

// For the members' commands, before a thaw that nobody has asked for.
inline constexpr std::chrono::milliseconds kCommandTime{1000};

// One rest of the host, from the first `freeze` hook until everything is thawed, for the process
// that has the lock of the run directory. Each step is on record before it is made, so that another
// freezer can undo it if this one dies. rest.cpp freezes, rest_thaw.cpp thaws.
class rest {
 public:
  using clock = std::chrono::steady_clock;

  // A rest of our own, to begin. Throws std::runtime_error when a file system cannot be opened.
  rest(event_loop& loop, run_directory& directory, const FreezerPlan& plan);
  // The rest of another freezer, by its record.
  rest(event_loop& loop, run_directory& directory, RestRecord left);

  // A rest of our own, from beginning to end. Returns when everything is thawed.
  void run();
  // For hooks that were only prepared: runs their `thaw`, and freezes nothing.
  void undo_prepare();
  // Thaws the rest of another freezer. False when something may still be frozen.
  bool recover();
  // Thaws only the file systems, and writes no record: this needs no lock.
  void thaw_file_systems();

 private:
  // Thrown to end the rest; what() is the reason.
  struct end_of_rest : std::runtime_error {
    end_of_rest(const std::string& reason, bool is_asked)
        : std::runtime_error(reason), asked(is_asked) {}
    bool asked;  // otherwise the members' commands run before the thaw
  };
  struct volume {
    RestRecord::FileSystem facts;
    unique_fd root;  // empty when an earlier rest has left it frozen
    bool may_be_frozen = false;
    child* freezing = nullptr;  // runs its FIFREEZE; null when the result was taken
    child* thawing = nullptr;   // runs its FITHAW; null when the result was taken

    bool is_thawing() const { return thawing != nullptr && !thawing->ended(); }
  };

  void run_freeze_hooks();
  void freeze_file_systems();
  // The exit code of a FIFREEZE that has ended: 0, an errno, or a signal's.
  static int take_freeze_result(volume& one);
  void throw_if_over();  // end_of_rest
  // Blocks while it runs. Throws end_of_rest.
  void await_freezing(const child& step);
  // Answers the agent's requests. True when the last member has left.
  bool answer_requests(bool at_rest);
  // When the thaw begins that nobody asks for: at the deadline, or so long before it that the
  // members' commands can run.
  clock::time_point forced_thaw_time() const;
  clock::time_point deadline() const { return from_ms(record_.begun()) + max_freeze(); }
  std::chrono::milliseconds max_freeze() const {
    return std::chrono::milliseconds(record_.plan().max_freeze_ms());
  }

  void thaw(bool asked);
  void run_commands();
  void thaw_again();
  void start_thawing(volume& one);
  // Of a FITHAW that has ended.
  void take_thaw_result(volume& one);
  // `error`: of a FITHAW, 0 or an errno.
  void note_thaw(volume& one, int error);
  // That everything is thawed.
  bool is_certain() const;
  // Removes the record, or leaves on it what could not be thawed.
  void end_record();
  // Runs the `thaw` of these hooks, given in the order of freezing. Those that have failed.
  std::vector<int> run_thaw_hooks(const std::vector<int>& which);
  bool any_lingers();
  void await_lingering(clock::time_point until);
  // Killed processes that may still freeze something, and those of each FITHAW under way.
  std::vector<process> unfinished();
  // Waits for them without a limit, then thaws what they have frozen.
  void watch_unfinished();
  void thaw_last_hook();
  void report_thawed(bool certain);
  void write_record();
  void write_processes(const std::vector<process>& all);

  child& start_hook(int index, const std::string& phase, clock::duration timeout);
  void report_hook(int index, const std::string& phase, const child& run);

  event_loop& loop_;
  run_directory& directory_;
  const bool is_ours_;  // not the rest of another freezer
  RestRecord record_;
  std::vector<std::string> environment_;
  std::vector<volume> volumes_;
  bool is_stacked_ = true;         // the volumes have to be frozen one after the other
  std::string thawed_by_other_;    // a mount point that was not frozen any more at the thaw
  bool is_told_to_thaw_ = false;   // by the agent, although members have not left
  std::string reason_;             // why the host was not at rest all the time; empty when it was
  std::vector<int> failed_hooks_;  // the hooks whose `thaw` has failed, in the order of freezing
  child* freezing_ = nullptr;      // the `freeze` hook under way
  bool is_reported_ = false;       // that the host is thawed
  bool outlasts_thaw_ = false;     // a killed process is still there after the thaw
  clock::time_point thawed_at_;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_REST_H_

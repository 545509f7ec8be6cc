#ifndef TOOLS_PLUGIN_AGENT_FREEZE_TURN_H_
#define TOOLS_PLUGIN_AGENT_FREEZE_TURN_H_

#include <optional>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace vexo::tools {

// What a freeze has to undo, for whoever comes after an agent that could not.
struct freeze_record {
  struct frozen {
    std::string mount_point;
    dev_t device = 0;
  };
  std::vector<frozen> file_systems;  // in the order of freezing
  std::vector<std::string> hooks;    // paths, in the order in which their `freeze` is run
};

// The right to freeze on this host, which one handshake has at a time: file systems and hooks are
// shared by all of them, and hosts need to breathe between two freezes. It is a lock on a file,
// held across processes: a guardian inherits it, so that a new agent cannot freeze while the
// guardian of its killed predecessor is still thawing.
//
// Beside the lock lies the record of the freeze.
class freeze_turn {
 public:
  // Empty while somebody else has it. Throws std::runtime_error with a sentence for the user when
  // `directory` cannot be used.
  static std::optional<freeze_turn> try_take(const std::string& directory);

  // Written and synced when it returns. Throws std::system_error.
  void write(const freeze_record& record) const;
  void remove_record() const;

  int fd() const { return lock_.get(); }

 private:
  freeze_turn(std::string directory, unique_fd lock);

  std::string directory_;
  unique_fd lock_;
};

// The record of the freeze under way or, when nobody has the turn, of one that nobody has undone. A
// record that cannot be read in full counts with what can be.
std::optional<freeze_record> read_freeze_record(const std::string& directory);
void remove_freeze_record(const std::string& directory);

// Creates the directory for the lock and the record if it is missing. Throws std::runtime_error
// with a sentence for the user.
void make_run_directory(const std::string& directory);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_FREEZE_TURN_H_

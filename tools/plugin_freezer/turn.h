#ifndef TOOLS_PLUGIN_FREEZER_TURN_H_
#define TOOLS_PLUGIN_FREEZER_TURN_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "freezer.pb.h"
#include "plugin_freezer/packets.h"

namespace vexo::tools {

// The right to freeze on this host, which one rest has at a time, and the record of that rest, in
// the run directory. It is a lock on a file that belongs to the process alone: it ends with the
// freezer, also while a child of it hangs in the kernel.
class turn {
 public:
  // Creates the directory if it is missing. Throws std::runtime_error with a sentence for the user.
  // One of one directory per process: closing another would give the lock back.
  explicit turn(std::string directory);

  bool try_take();
  void give_back();
  // Who has it; 0 when nobody or this process does.
  pid_t holder() const;

  // The record of the rest under way or, when nobody has the turn, of one that nobody has undone.
  // Where it cannot be read in full, it is what could be read, and `damaged` is set.
  std::optional<RestRecord> record(bool* damaged = nullptr) const;
  // The following are for whoever has the turn. write() has synced when it returns, and throws
  // std::system_error.
  void write(const RestRecord& record) const;
  void remove_record() const;

  // No rest may begin before: between two the host is thawed for at least as long as the first
  // lasted.
  std::chrono::steady_clock::time_point not_before() const;
  void set_not_before(std::chrono::steady_clock::time_point time) const;

 private:
  void write_file(const std::string& name, const google::protobuf::Message& content) const;

  std::string directory_;
  unique_fd lock_;
};

// Differs from boot to boot; empty when it cannot be read, as in a sandbox without /proc/sys.
std::string boot_id();
// Of a record in `directory` with the boot_id `id`. What is in memory only has been written since
// the boot: there the id is not looked at, which a container may see differently in a sandbox. True
// also when an id is not known: what may be frozen is looked at.
bool is_of_this_boot(const std::string& id, const std::string& directory);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_TURN_H_

#ifndef TOOLS_PLUGIN_FREEZER_RUN_DIRECTORY_H_
#define TOOLS_PLUGIN_FREEZER_RUN_DIRECTORY_H_

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>

#include "common/unique_fd.h"
#include "freezer.pb.h"

namespace vexo::tools {

// Creates the directory if it is missing. Throws std::runtime_error with a sentence for the user.
void make_run_directory(const std::string& path);

// The directory in which the freezers of this host find each other. Its lock is the right to bring
// the host to rest, which one freezer has at a time; its record says what that one has to undo.
class run_directory {
 public:
  // Creates it if it is missing. Throws std::runtime_error with a sentence for the user. A process
  // must not have two of the same directory: closing one would release the lock of the other.
  explicit run_directory(std::string path);

  // A POSIX lock: it belongs to this process, not to its children, and so it is released when a
  // freezer ends, even if a child of it still hangs in the kernel.
  bool try_lock();
  void unlock();
  // The process that has the lock; 0 when none has it, or this one.
  pid_t lock_holder() const;

  // The record of the rest under way or, when the lock is free, of one that was not undone. When
  // the file cannot be read in full, the part that could be read, and `damaged` is set.
  std::optional<RestRecord> record(bool* damaged = nullptr) const;
  // The following need the lock. The record is on the disk when write_record() returns. Throws
  // std::system_error.
  void write_record(const RestRecord& record) const;
  void remove_record() const;

  // When the next rest may begin: between two rests the host is thawed for at least as long as the
  // first one lasted.
  std::chrono::steady_clock::time_point not_before() const;
  void set_not_before(std::chrono::steady_clock::time_point time) const;

 private:
  void write_file(const std::string& name, const google::protobuf::Message& content) const;

  std::string path_;
  unique_fd lock_;
};

// Differs from boot to boot; empty when it cannot be read, as in a sandbox without /proc/sys.
std::string boot_id();
// Whether a record in `directory` with the boot_id `id` was written since the boot. A record on a
// tmpfs always was; there `id` is not compared, since a sandbox may show another one. True also
// when one of the ids is not known, so that no frozen file system is overlooked.
bool is_of_this_boot(const std::string& id, const std::string& directory);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_FREEZER_RUN_DIRECTORY_H_

#ifndef TOOLS_COMMON_EVENT_H_
#define TOOLS_COMMON_EVENT_H_

#include <chrono>

#include "common/unique_fd.h"

namespace vexo::tools {

// A flag that another thread raises and that poll() can watch. What a thread has written before
// raise() can be read by the thread that saw the flag raised.
class event {
 public:
  event();  // throws std::system_error

  // Readable while raised.
  int fd() const { return fd_.get(); }
  void raise();
  bool raised() const;
  // Lowers the flag; true when it was raised.
  bool take();

 private:
  unique_fd fd_;
};

// Blocks until one of the two, which may be the same, is raised, at most for `time`. True when one
// is.
bool wait_for(const event& one, const event& other, std::chrono::steady_clock::duration time);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_EVENT_H_

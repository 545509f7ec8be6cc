#ifndef TOOLS_COMMON_EVENT_H_
#define TOOLS_COMMON_EVENT_H_

#include <chrono>

namespace vexo::tools {

// A flag that another thread raises and that poll() can watch. Everything written before raise()
// is seen by whoever saw it raised.
class event {
 public:
  event();  // throws std::system_error
  ~event();
  event(const event&) = delete;
  event& operator=(const event&) = delete;

  // Readable while raised.
  int fd() const { return fd_; }
  void raise();
  // Lowers the flag; true when it was raised.
  bool take();

 private:
  int fd_;
};

// True when one of the two is raised within `time`; they may be the same.
bool wait_for(const event& one, const event& other, std::chrono::milliseconds time);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_EVENT_H_

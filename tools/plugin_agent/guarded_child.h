#ifndef TOOLS_PLUGIN_AGENT_GUARDED_CHILD_H_
#define TOOLS_PLUGIN_AGENT_GUARDED_CHILD_H_

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "common/unique_fd.h"

namespace vexo::tools {

// A program's arguments and environment in the form the kernel takes them. Built beforehand, so
// that a process that may not allocate can start the program.
class exec_image {
 public:
  // The first argument is the program's path.
  exec_image(std::vector<std::string> arguments, std::vector<std::string> environment);
  exec_image(exec_image&&) = default;
  exec_image& operator=(exec_image&&) = default;
  exec_image(const exec_image&) = delete;
  exec_image& operator=(const exec_image&) = delete;
  ~exec_image() = default;

  char* const* argv() const { return argv_.data(); }
  char* const* envp() const { return envp_.data(); }

 private:
  std::vector<std::string> arguments_;
  std::vector<std::string> environment_;
  std::vector<char*> argv_;  // into arguments_
  std::vector<char*> envp_;
};

// Where a child writes: in memory, so that it can while file systems are frozen, and at most `most`
// bytes, so that a runaway cannot fill it.
class child_output {
 public:
  explicit child_output(std::size_t most);  // throws std::system_error

  int fd() const { return file_.get(); }
  // What has been written so far.
  std::string text() const;

 private:
  unique_fd file_;
};

// Allocates nothing and takes no lock, so that the child of a threaded process may use it. Starts
// the program in a process group of its own, in "/", with no signal blocked, stdin from
// `null_fd`, stdout and stderr to `output_fd`. With `announce_fd` not -1 the child sends an
// announcement with its own id down that socket before it becomes the program, so that whoever
// listens knows of it however the parent ends. Returns its id, or -1 with errno set. A program that
// cannot be started exits with 127. With `dies_with_us` the program, though not what it starts, is
// killed when the calling thread ends.
pid_t start_guarded_child(const exec_image& image, int null_fd, int output_fd, int announce_fd,
                          bool dies_with_us = false) noexcept;

// What a child sends down `announce_fd`. `kind` leads every message on that socket.
struct child_announcement {
  static constexpr int kKind = 'p';
  int kind = kKind;
  int pid = 0;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_GUARDED_CHILD_H_

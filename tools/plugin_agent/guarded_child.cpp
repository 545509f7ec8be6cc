#include "plugin_agent/guarded_child.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

std::vector<char*> pointers_into(std::vector<std::string>& strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings.size() + 1);
  for (auto& text : strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

[[noreturn]] void become(const exec_image& image, int null_fd, int output_fd, int announce_fd,
                         pid_t parent_to_die_with) noexcept {
  setpgid(0, 0);
  if (parent_to_die_with != 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent_to_die_with) _exit(127);
  }
  if (announce_fd >= 0) {
    child_announcement announcement;
    announcement.pid = getpid();
    send(announce_fd, &announcement, sizeof announcement, MSG_NOSIGNAL);
  }
  dup2(null_fd, STDIN_FILENO);
  dup2(output_fd, STDOUT_FILENO);
  dup2(output_fd, STDERR_FILENO);
  if (chdir("/") != 0) _exit(127);
  struct sigaction standard = {};
  standard.sa_handler = SIG_DFL;
  for (int signal = 1; signal < SIGRTMAX; ++signal) sigaction(signal, &standard, nullptr);
  sigset_t none;
  sigemptyset(&none);
  pthread_sigmask(SIG_SETMASK, &none, nullptr);
  execve(image.argv()[0], image.argv(), image.envp());
  _exit(127);
}

}  // namespace

exec_image::exec_image(std::vector<std::string> arguments, std::vector<std::string> environment)
    : arguments_(std::move(arguments)),
      environment_(std::move(environment)),
      argv_(pointers_into(arguments_)),
      envp_(pointers_into(environment_)) {}

child_output::child_output(std::size_t most)
    : file_(memfd_create("child_output", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
  if (!file_ || ftruncate(fd(), static_cast<off_t>(most)) != 0 ||
      fcntl(fd(), F_ADD_SEALS, F_SEAL_GROW | F_SEAL_SHRINK) != 0) {
    throw std::system_error(errno, std::generic_category(), "a child's output");
  }
}

std::string child_output::text() const {
  // What was written ends where the file offset stands, which the child shares.
  const off_t end = lseek(fd(), 0, SEEK_CUR);
  std::string text(static_cast<std::size_t>(std::max<off_t>(end, 0)), '\0');
  const ssize_t size = pread(fd(), text.data(), text.size(), 0);
  text.resize(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
  return text;
}

pid_t start_guarded_child(const exec_image& image, int null_fd, int output_fd, int announce_fd,
                          bool dies_with_us) noexcept {
  const pid_t parent = dies_with_us ? getpid() : 0;
  const pid_t pid = fork();
  if (pid == 0) become(image, null_fd, output_fd, announce_fd, parent);
  if (pid > 0) setpgid(pid, pid);  // whoever of the two comes first
  return pid;
}

}  // namespace vexo::tools

#include "plugin_freezer/children.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>

#include "common/child_process.h"
#include "common/poll_until.h"
#include "plugin_freezer/process_settings.h"

namespace vexo::tools {

namespace {

constexpr std::size_t kOutputKept = 16384;
constexpr int kCannotStart = 127;

struct pipe_ends {
  unique_fd read;
  unique_fd write;
};

pipe_ends make_pipe() {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  return {unique_fd(ends[0]), unique_fd(ends[1])};
}

unique_fd watch_children() {
  std::signal(SIGCHLD, SIG_DFL);  // the agent, which starts this program, ignores it
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  unique_fd fd(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!fd) throw std::system_error(errno, std::generic_category(), "signalfd");
  return fd;
}

bool is_among(const std::vector<process>& all, const process& one) {
  return std::any_of(all.begin(), all.end(), [&](const process& other) {
    return other.pid == one.pid && other.start == one.start;
  });
}

void add_missing(std::vector<process>& to, const std::vector<process>& others) {
  for (const auto& one : others) {
    if (!is_among(to, one)) to.push_back(one);
  }
}

// What the pipe holds, and not what is written meanwhile, which may be without an end.
void drain(child& from) {
  char buffer[65536];
  const ssize_t size = read(from.pipe.get(), buffer, sizeof buffer);
  if (size == 0) from.pipe.reset();
  if (size <= 0) return;
  from.output.append(buffer,
                     std::min(static_cast<std::size_t>(size), kOutputKept - from.output.size()));
}

}  // namespace

children::children() : hooks_oom_score_(oom_score()), child_ended_(watch_children()) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
}

child& children::add(pid_t pid) {
  auto& added = all_.emplace_back();
  added.pid = pid;
  added.start = clock::now();
  return added;
}

child& children::start(const std::vector<std::string>& arguments,
                       const std::vector<std::string>& environment, clock::duration timeout) {
  auto& added = add(-1);
  try {
    auto pipe = make_pipe();
    // This end only: programs expect that a write to theirs blocks.
    fcntl(pipe.read.get(), F_SETFL, O_NONBLOCK);
    set_oom_score(hooks_oom_score_);
    added.pid = start_child({.arguments = arguments,
                             .environment = environment,
                             .stdout_fd = pipe.write.get(),
                             .stderr_fd = pipe.write.get()});
    added.pipe = std::move(pipe.read);
    added.deadline = added.start + timeout;
  } catch (const std::system_error& error) {
    added.exit_code = kCannotStart;
    added.end = clock::now();
    added.output = error.what();
  }
  set_oom_score(kFreezerOomScore);
  return added;
}

child& children::fork_call(const std::function<int()>& call,
                           const std::function<void(pid_t)>& recorded) {
  auto gate = make_pipe();
  const pid_t pid = fork();
  if (pid < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (pid == 0) {
    // The socket: the agent must notice at once that the freezer has ended, not that this child
    // has.
    close(STDIN_FILENO);
    gate.write.reset();
    char go = 0;
    _exit(read(gate.read.get(), &go, 1) == 1 ? call() : ECANCELED);
  }
  auto& added = add(pid);
  recorded(pid);
  added.start = clock::now();
  if (write(gate.write.get(), "", 1) != 1)
    throw std::system_error(errno, std::generic_category(), "pipe");
  return added;
}

void children::wait(const std::vector<int>& others, clock::time_point until) {
  std::vector<pollfd> watched = {{child_ended_.get(), POLLIN, 0}};
  for (const int fd : others) watched.push_back({fd, POLLIN, 0});
  for (const auto& one : all_) {
    if (one.pipe) watched.push_back({one.pipe.get(), POLLIN, 0});
    if (one.is_running()) until = std::min(until, one.deadline);
  }
  poll_until(watched, until);
  for (auto& one : all_) {
    if (one.pipe) drain(one);
  }
  reap();
  for (auto& one : all_) {
    if (one.is_running() && clock::now() >= one.deadline) kill(one);
  }
}

void children::reap() {
  signalfd_siginfo info = {};
  while (read(child_ended_.get(), &info, sizeof info) == sizeof info) {
  }
  int status = 0;
  for (pid_t pid = 0; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    const auto one = std::find_if(all_.begin(), all_.end(), [&](const child& other) {
      return other.pid == pid && !other.ended();
    });
    if (one == all_.end()) continue;
    one->exit_code = exit_code_of(status);
    one->end = clock::now();
    if (one->pipe && !one->killed) add_missing(left_behind_, orphans(running_processes()));
    if (one->pipe) drain(*one);
  }
}

// The processes that our programs have left behind when they ended, without those known already.
std::vector<process> children::orphans(const std::vector<process>& running) {
  std::vector<process> known = left_behind_;
  add_missing(known, killed_);
  for (const auto& one : all_) {
    if (one.ended()) continue;
    add_missing(known, descendants(running, one.pid));
    known.push_back(look_at(one.pid));
  }
  auto found = descendants(running, getpid());
  std::erase_if(found, [&](const process& one) { return is_among(known, one); });
  return found;
}

void children::kill(child& which) {
  which.killed = true;
  if (which.ended()) return;
  const auto running = running_processes();
  std::vector<process> killed = descendants(running, which.pid);
  killed.push_back(look_at(which.pid));
  // While other programs run, an orphan may be one of theirs.
  const bool alone = std::none_of(all_.begin(), all_.end(), [&](const child& other) {
    return other.pipe && other.is_running();
  });
  if (alone) add_missing(killed, orphans(running));
  kill_others(killed);
}

void children::kill_others(const std::vector<process>& others) {
  std::vector<process> known = others;
  // A process that had ended before it was looked at has no start time.
  std::erase_if(known, [](const process& one) { return one.pid <= 1 || one.start == 0; });
  add_missing(killed_, known);
  for (const auto& one : lingering()) ::kill(one.pid, SIGKILL);
}

std::vector<process> children::lingering() {
  if (killed_.empty()) return {};  // a look at all processes takes milliseconds
  const auto running = running_processes();
  // Whether `one` is the killed process, or was started by it or in its group, and so is not older.
  // The kernel gives no process the id of a group that still exists.
  const auto belongs_to = [&](const process& one, const process& killed) {
    if (killed.pid == one.pid) return killed.start == one.start;
    return (killed.pid == one.group || killed.pid == one.parent) && one.start >= killed.start &&
           std::none_of(running.begin(), running.end(), [&](const process& other) {
             return other.pid == killed.pid && other.start != killed.start;
           });
  };
  std::vector<process> found;
  for (const auto& one : running) {
    if (std::any_of(killed_.begin(), killed_.end(),
                    [&](const process& other) { return belongs_to(one, other); })) {
      found.push_back(one);
    }
  }
  add_missing(killed_, found);
  return found;
}

}  // namespace vexo::tools

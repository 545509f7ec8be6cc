#include "plugin_agent/guardian.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include "common/child_process.h"
#include "plugin_agent/file_system.h"
#include "plugin_agent/memory_lock.h"
#include "plugin_agent/survival.h"

namespace vexo::tools {

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr milliseconds kStartTime{2000};
constexpr milliseconds kEndTime{1000};
// How often a freeze that completes late is looked for.
constexpr milliseconds kPatrol{100};
constexpr milliseconds kThawTime{1000};
constexpr milliseconds kLook{2};
// How long a killed hook is waited for before the thaw hooks run, and before it is left alone.
constexpr milliseconds kDyingTime{400};
constexpr milliseconds kDyingPatience{2000};
constexpr int kLastDescriptor = 65535;

// The longest that all thaw hooks can take, one after the other.
milliseconds time_of_hooks(const guardian_plan& plan) {
  return plan.hook_timeout * static_cast<int>(plan.thaw_hooks.size());
}

// What the two tell one another. Hooks add a child_announcement, which has the same form.
struct message {
  int kind = 0;
  int value = 0;
};
enum : int {
  kWillFreeze = 'f',
  kNotOurs = 'u',
  kWillRunHook = 'h',
  kHookEnded = 'e',
  kRunningThawHooks = 't',
  kDone = 'd',
  kUndo = 'x',
  // The guardian's own:
  kReady = 'r',  // value: whether its memory is locked
  kThawing = 'z',
};
static_assert(sizeof(message) == sizeof(child_announcement));

struct watched_file_system {
  int root = -1;
  bool may_be_frozen = false;
  pid_t thawer = 0;
};

struct watched_hook {
  const exec_image* thaw = nullptr;
  bool started = false;
  bool due = false;  // its `thaw` is to be run
};

// The guardian's own process. Whatever it needs was built before the fork.
class watch {
 public:
  watch(const guardian_plan& plan, int socket)
      : plan_(plan),
        socket_(socket),
        deadline_(plan.deadline),
        hooks_oom_score_(oom_score()),
        code_(loaded_code()) {
    for (const int root : plan.file_systems) file_systems_.push_back({root, false, 0});
    for (const auto& image : plan.thaw_hooks) hooks_.push_back({&image, false, false});
    null_ = unique_fd(open_null());
    kept_ = plan.file_systems;
    kept_.insert(kept_.end(), {STDERR_FILENO, socket_, null_.get(), plan.turn_fd});
    std::sort(kept_.begin(), kept_.end());
  }

  // Async-signal-safe from here on.
  [[noreturn]] void run() noexcept {
    settle();
    heard last = heard::step;
    while (last == heard::step) last = listen(deadline_);
    if (last == heard::dismissed) _exit(0);
    tell(kThawing, 0);
    undo();
    while (last != heard::dismissed && last != heard::lost && last != heard::undo) {
      last = listen(steady_clock::now() + kPatrol);
      undo();
    }
    const auto patience = steady_clock::now() + kDyingPatience;
    while (is_dying() && steady_clock::now() < patience) pause();
    if (dying_hook_ != 0) hooks_[last_hook_].due = true;
    run_due_hooks();
    _exit(0);
  }

 private:
  enum class heard { nothing, step, undo, dismissed, lost };

  static int open_null();
  void settle() noexcept;
  heard listen(steady_clock::time_point deadline) noexcept;
  heard take(const message& said) noexcept;
  void undo() noexcept;
  void thaw_file_systems() noexcept;
  bool thawers_have_ended() noexcept;
  // Whether processes of a killed hook live on. What they were about to freeze may be frozen just
  // before they die, so the hook is due once more then.
  bool is_dying() noexcept;
  void run_due_hooks() noexcept;
  static void pause() noexcept { poll(nullptr, 0, static_cast<int>(kLook.count())); }
  void tell(int kind, int value) noexcept {
    const message said = {kind, value};
    send(socket_, &said, sizeof said, MSG_NOSIGNAL | MSG_DONTWAIT);
  }

  const guardian_plan& plan_;
  const int socket_;
  steady_clock::time_point deadline_;
  const int hooks_oom_score_;
  std::vector<memory_range> code_;
  std::vector<watched_file_system> file_systems_;
  std::vector<watched_hook> hooks_;
  std::vector<int> kept_;  // descriptors, ascending
  unique_fd null_;
  pid_t running_hook_ = 0;
  pid_t dying_hook_ = 0;
  std::size_t last_hook_ = 0;
};

int watch::open_null() {
  const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "/dev/null");
  return fd;
}

void close_between(int first, int last) noexcept {
  if (first > last ||
      close_range(static_cast<unsigned>(first), static_cast<unsigned>(last), 0) == 0)
    return;
  for (int fd = first; fd <= std::min(last, kLastDescriptor); ++fd) close(fd);
}

void watch::settle() noexcept {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  setsid();  // out of reach of a terminal's Ctrl-C and of signals to the agent's process group
  prctl(PR_SET_NAME, "agent_guardian");
  set_oom_score(kGuardianOomScore);
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    dup2(null_.get(), standard);
  }
  // Above all the agent's end of the socket, which must close with the agent, and its connections.
  int previous = STDERR_FILENO;
  for (const int fd : kept_) {
    if (fd <= previous) continue;
    close_between(previous + 1, fd - 1);
    previous = fd;
  }
  close_between(previous + 1, kLastDescriptor);
  tell(kReady, lock_memory(code_) ? 1 : 0);
}

watch::heard watch::listen(steady_clock::time_point deadline) noexcept {
  for (;;) {
    const auto left = std::chrono::ceil<milliseconds>(deadline - steady_clock::now());
    if (left.count() <= 0) return heard::nothing;
    pollfd socket = {socket_, POLLIN, 0};
    if (poll(&socket, 1, static_cast<int>(left.count())) <= 0) continue;
    message said;
    const ssize_t size = recv(socket_, &said, sizeof said, MSG_DONTWAIT);
    if (size == sizeof said) return take(said);
    // A reset stands before what the agent said last.
    if (size < 0 && (errno == EAGAIN || errno == EINTR || errno == ECONNRESET)) continue;
    return heard::lost;
  }
}

watch::heard watch::take(const message& said) noexcept {
  const auto index = static_cast<std::size_t>(said.value);
  switch (said.kind) {
    case kWillFreeze:
      file_systems_[index].may_be_frozen = true;
      break;
    case kNotOurs:
      file_systems_[index].may_be_frozen = false;
      break;
    case kWillRunHook:
      hooks_[index].started = hooks_[index].due = true;
      last_hook_ = index;
      break;
    case child_announcement::kKind:
      running_hook_ = said.value;
      hooks_[last_hook_].due = true;
      break;
    case kHookEnded:
      running_hook_ = 0;
      break;
    case kRunningThawHooks:
      deadline_ = steady_clock::now() + kEndTime + time_of_hooks(plan_);
      break;
    case kUndo:
      for (auto& hook : hooks_) hook.due = hook.started;
      return heard::undo;
    default:
      return heard::dismissed;
  }
  return heard::step;
}

void watch::undo() noexcept {
  if (running_hook_ != 0) {
    kill(-running_hook_, SIGKILL);
    dying_hook_ = std::exchange(running_hook_, 0);
  }
  thaw_file_systems();
  const auto patience = steady_clock::now() + kDyingTime;
  while (is_dying() && steady_clock::now() < patience) pause();
  run_due_hooks();
}

bool watch::is_dying() noexcept {
  if (dying_hook_ == 0) return false;
  if (kill(-dying_hook_, 0) == 0) return true;
  dying_hook_ = 0;
  hooks_[last_hook_].due = true;
  return false;
}

void watch::thaw_file_systems() noexcept {
  thawers_have_ended();
  for (auto& one : file_systems_) {
    if (!one.may_be_frozen || one.thawer != 0) continue;
    one.thawer = fork();
    if (one.thawer == 0) {
      thaw_file_system(one.root);
      _exit(0);
    }
    if (one.thawer < 0) {
      one.thawer = 0;
      thaw_file_system(one.root);
    }
  }
  const auto patience = steady_clock::now() + kThawTime;
  while (!thawers_have_ended() && steady_clock::now() < patience) {
    pause();
  }
}

bool watch::thawers_have_ended() noexcept {
  bool ended = true;
  for (auto& one : file_systems_) {
    if (one.thawer != 0 && waitpid(one.thawer, nullptr, WNOHANG) != 0) one.thawer = 0;
    ended = ended && one.thawer == 0;
  }
  return ended;
}

void watch::run_due_hooks() noexcept {
  for (std::size_t i = hooks_.size(); i-- > 0;) {
    if (!hooks_[i].due) continue;
    hooks_[i].due = false;
    set_oom_score(hooks_oom_score_);
    const pid_t pid = start_guarded_child(*hooks_[i].thaw, null_.get(), null_.get(), -1);
    set_oom_score(kGuardianOomScore);
    if (pid < 0) continue;
    if (await_child(pid, steady_clock::now() + plan_.hook_timeout) || kill_child_group(pid)) {
      reap_child(pid);
    }
  }
}

}  // namespace

guardian::guardian(const guardian_plan& plan) : hooks_time_(time_of_hooks(plan)) {
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) {
    throw std::system_error(errno, std::generic_category(), "socketpair");
  }
  socket_ = unique_fd(ends[0]);
  const unique_fd its_end(ends[1]);
  watch watch(plan, its_end.get());
  pid_ = fork();
  if (pid_ == 0) watch.run();
  if (pid_ < 0) throw std::system_error(errno, std::generic_category(), "fork of the guardian");

  pollfd socket = {socket_.get(), POLLIN, 0};
  message said;
  if (poll(&socket, 1, static_cast<int>(kStartTime.count())) != 1 ||
      recv(socket_.get(), &said, sizeof said, MSG_DONTWAIT) != sizeof said || said.kind != kReady) {
    kill(pid_, SIGKILL);
    reap_child(pid_);
    throw std::system_error(ETIMEDOUT, std::generic_category(), "start of the guardian");
  }
  memory_locked_ = said.value != 0;
}

guardian::~guardian() { dismiss(false); }

void guardian::dismiss(bool sure) {
  if (pid_ < 0) return;
  tell(sure ? kDone : kUndo);
  const auto undo_time = kThawTime + kDyingTime + kDyingPatience + 2 * hooks_time_;
  if (!await_child(pid_, steady_clock::now() + kEndTime + (sure ? milliseconds(0) : undo_time))) {
    kill(pid_, SIGKILL);  // stopped, or what else
  }
  reap_child(pid_);
  pid_ = -1;
}

bool guardian::will_freeze_file_system(std::size_t index) {
  return tell(kWillFreeze, static_cast<int>(index));
}

bool guardian::will_run_freeze_hook(std::size_t index) {
  return tell(kWillRunHook, static_cast<int>(index));
}

void guardian::freeze_hook_ended() { tell(kHookEnded); }

void guardian::file_system_is_not_ours(std::size_t index) {
  tell(kNotOurs, static_cast<int>(index));
}

void guardian::running_thaw_hooks() { tell(kRunningThawHooks); }

bool guardian::tell(int kind, int value) {
  const message said = {kind, value};
  if (send(socket_.get(), &said, sizeof said, MSG_NOSIGNAL) != sizeof said) gone_ = true;
  return watching();
}

bool guardian::watching() {
  message said;
  for (;;) {
    const ssize_t size = recv(socket_.get(), &said, sizeof said, MSG_DONTWAIT);
    if (size == sizeof said) {
      has_thawed_ = has_thawed_ || said.kind == kThawing;
    } else {
      gone_ = gone_ || size == 0 || (errno != EAGAIN && errno != EINTR);
      return !gone_ && !has_thawed_;
    }
  }
}

}  // namespace vexo::tools

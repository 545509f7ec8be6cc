#include "plugin_freezer/event_loop.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace vexo::tools {

event_loop::event_loop(int socket) : agent(socket) {
  sigset_t set;
  sigfillset(&set);
  // A fault of this program must end it.
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
    sigdelset(&set, fault);
  pthread_sigmask(SIG_SETMASK, &set, nullptr);
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  signals_ = unique_fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals_) throw std::system_error(errno, std::generic_category(), "signalfd");
}

void event_loop::wait(std::chrono::steady_clock::time_point until) {
  // A socket that was closed by the other side stays readable.
  programs.wait({signals_.get(), agent_gone ? -1 : agent.fd()}, until);
  signalfd_siginfo info = {};
  while (read(signals_.get(), &info, sizeof info) == sizeof info) terminated = true;
  if (agent.fd() < 0) return;
  while (auto request = agent.receive(agent_gone)) requests.push_back(std::move(*request));
}

}  // namespace vexo::tools

#include "plugin_freezer/outside.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace vexo::tools {

outside::outside(int socket) : report(socket) {
  sigset_t set;
  sigfillset(&set);
  // What a fault of this program raises must not be blocked.
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTRAP})
    sigdelset(&set, fault);
  pthread_sigmask(SIG_SETMASK, &set, nullptr);
  sigemptyset(&set);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, signal);
  signals_ = unique_fd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (!signals_) throw std::system_error(errno, std::generic_category(), "signalfd");
}

void outside::wait(std::chrono::steady_clock::time_point until) {
  // An agent that has gone is readable for ever.
  programs.wait({signals_.get(), agent_gone ? -1 : report.fd()}, until);
  signalfd_siginfo info = {};
  while (read(signals_.get(), &info, sizeof info) == sizeof info) terminated = true;
  if (report.fd() < 0) return;
  while (auto request = report.receive(agent_gone)) requests.push_back(std::move(*request));
}

}  // namespace vexo::tools

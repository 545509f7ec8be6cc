#include "daemon.h"

#include <gtest/gtest.h>
#include <linux/capability.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

#include "program.h"

namespace vexo::test {

dev_log::dev_log() : socket_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, "/dev/log");
  unlink(address.sun_path);
  EXPECT_EQ(bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0)
      << std::strerror(errno);
  reader_ = std::thread(&dev_log::read_all, this);
}

dev_log::~dev_log() {
  shutdown(socket_, SHUT_RDWR);
  reader_.join();
  close(socket_);
  unlink("/dev/log");
}

void dev_log::read_all() {
  std::vector<char> buffer(std::size_t{1} << 18);  // more than the socket takes
  for (;;) {
    pollfd news = {socket_, POLLIN, 0};
    poll(&news, 1, -1);
    const std::lock_guard lock(reading_);
    const ssize_t size = recv(socket_, buffer.data(), buffer.size(), 0);
    if (size <= 0) return;
    // "<facility * 8 + priority>Mmm dd hh:mm:ss name: text"
    const std::string datagram(buffer.data(), static_cast<std::size_t>(size));
    const int header = std::atoi(datagram.c_str() + 1);
    const auto text = datagram.find(": ");
    add({header & 7, text == std::string::npos ? datagram : datagram.substr(text + 2)});
  }
}

void dev_log::catch_up() const {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (std::chrono::steady_clock::now() < deadline) {
    {
      const std::lock_guard lock(reading_);
      int waiting = 0;
      if (ioctl(socket_, FIONREAD, &waiting) != 0 || waiting == 0) return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

daemon_process::daemon_process(dev_log* log, const daemon_options& how, bool serves) {
  std::filesystem::remove_all("/tmp/iscsi");
  if (how.with_directory) std::filesystem::create_directory("/tmp/iscsi");
  const std::size_t served_before = serves ? log->count("listening on unix:") : 0;
  words variables = {"VEXO_ISCSI_CONF=" + how.inventory};
  if (how.library_dir) variables.push_back("LD_LIBRARY_PATH=" + *how.library_dir);
  if (how.preload) {
    variables.push_back("LD_PRELOAD=" + *how.preload);
    // Neither library minds that another one comes before it.
    variables.emplace_back("ASAN_OPTIONS=verify_asan_link_order=0");
  }
  words environment = environment_with(variables);
  const std::vector<char*> envp = pointers_to(&environment);

  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (how.open_files) setrlimit(RLIMIT_NOFILE, &*how.open_files);
    if (!how.may_raise_limits) prctl(PR_CAPBSET_DROP, CAP_SYS_RESOURCE);
    execle(SCSI_PLUGIN_SERVER, SCSI_PLUGIN_SERVER, "--arguments", "have no effect", nullptr,
           envp.data());
    _exit(127);
  }
  EXPECT_GT(pid_, 0);
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (serves && log->count("listening on unix:") == served_before) {
    if (!alive() || std::chrono::steady_clock::now() > deadline) {
      ADD_FAILURE() << "the daemon " << (alive() ? "does not serve" : "ended at its start");
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

daemon_process::~daemon_process() { kill(); }

bool daemon_process::alive() const {
  siginfo_t info = {};
  return pid_ > 0 &&
         waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) == 0 &&
         info.si_pid == 0;
}

std::optional<int> daemon_process::wait() {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (alive()) {
    if (std::chrono::steady_clock::now() > deadline) return std::nullopt;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  int status = 0;
  if (waitpid(pid_, &status, 0) != pid_) return std::nullopt;
  pid_ = -1;
  return status;
}

void daemon_process::stop() const {
  ::kill(pid_, SIGSTOP);
  siginfo_t info = {};
  EXPECT_EQ(waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WNOWAIT), 0);
}

void daemon_process::kill() {
  if (pid_ <= 0) return;
  ::kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = -1;
}

}  // namespace vexo::test

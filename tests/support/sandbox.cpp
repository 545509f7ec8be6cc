#include "sandbox.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace vexo::test {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string& what) {
  throw std::runtime_error(what + ": " + std::strerror(errno));
}

void write_file(const std::string& path, const std::string& text) {
  std::ofstream file(path);
  if (!(file << text << std::flush)) fail(path);
}

void mount_or_fail(const std::string& source, const std::string& target, const char* type,
                   unsigned long flags, const char* data) {
  if (mount(source.c_str(), target.c_str(), type, flags, data) != 0) fail("mount " + target);
}

void mount_tmpfs(const std::string& target, const char* options) {
  mount_or_fail("tmpfs", target, "tmpfs", MS_NOSUID, options);
}

void enter_namespaces() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  if (uid == 0) {
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) fail("unshare");
  } else {
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) != 0) fail("unshare");
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
  }
  mount_or_fail("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
}

void bring_loopback_up() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  ifreq request = {};
  std::strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  if (fd < 0 || ioctl(fd, SIOCSIFFLAGS, &request) != 0) fail("bring up lo");
  close(fd);
}

// A new, empty /tmp in which only the project's own trees are where they were.
void make_private_tmp() {
  std::vector<std::pair<std::string, int>> kept;
  for (const std::string tree : {PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR}) {
    if (!tree.starts_with("/tmp/")) continue;
    const int fd = open(tree.c_str(), O_PATH | O_CLOEXEC);
    if (fd < 0) fail(tree);
    kept.emplace_back(tree, fd);
  }
  mount_tmpfs("/tmp", "mode=1777");
  for (const auto& [tree, fd] : kept) {
    fs::create_directories(tree);
    mount_or_fail("/proc/self/fd/" + std::to_string(fd), tree, nullptr, MS_BIND | MS_REC, nullptr);
    close(fd);
  }
}

void make_private_dev() {
  const std::string scratch = "/tmp/dev";
  fs::create_directory(scratch);
  mount_tmpfs(scratch, "mode=755");
  std::vector<std::string> nodes = {"null", "zero", "full", "random", "urandom", "tty"};
  for (const auto& entry : fs::directory_iterator("/dev")) {
    const std::string name = entry.path().filename();
    if (name.starts_with("loop")) nodes.push_back(name);
  }
  for (const auto& name : nodes) {
    if (!fs::exists("/dev/" + name)) continue;
    write_file(scratch + "/" + name, "");
    mount_or_fail("/dev/" + name, scratch + "/" + name, nullptr, MS_BIND, nullptr);
  }
  fs::create_directory(scratch + "/shm");
  fs::create_symlink("/proc/self/fd", scratch + "/fd");
  mount_or_fail(scratch, "/dev", nullptr, MS_BIND | MS_REC, nullptr);
}

std::string& no_sandbox() {
  static std::string reason;
  return reason;
}

}  // namespace

std::string enter_sandbox() {
  try {
    enter_namespaces();
    bring_loopback_up();
    make_private_tmp();
    make_private_dev();
    mount_tmpfs("/run", "mode=755");
    return {};
  } catch (const std::exception& error) {
    return error.what();
  }
}

void sandboxed::SetUp() {
  if (!no_sandbox().empty()) GTEST_SKIP() << "no namespaces to be had: " << no_sandbox();
}

int run_sandboxed_tests(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (!testing::GTEST_FLAG(list_tests)) no_sandbox() = enter_sandbox();
  return RUN_ALL_TESTS();
}

}  // namespace vexo::test

#include "volume.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>

#include "log_sink.h"
#include "program.h"

namespace vexo::test {

using std::chrono::milliseconds;

namespace {

// Longer than a write takes on a busy machine.
constexpr milliseconds kFrozen{150};

bool wait_for(const std::function<bool()>& reached) {
  const auto deadline = std::chrono::steady_clock::now() + kPatience;
  while (!reached()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(5));
  }
  return true;
}

bool succeeds(const std::vector<std::string>& command, std::string* why) {
  const auto ended = run(command);
  if (ended.status != 0) *why = command[0] + ": " + ended.err;
  return ended.status == 0;
}

}  // namespace

std::string volume::unavailable() {
  if (geteuid() != 0) return "only root can mount and freeze file systems";
  std::string why;
  const std::string image = "/tmp/loop_probe";
  const std::string at = image + ".mounted";
  std::filesystem::create_directory(at);
  if (succeeds({"truncate", "--size", "16M", image}, &why) &&
      succeeds({"mkfs.ext4", "-q", image}, &why) &&
      succeeds({"mount", "-o", "loop", image, at}, &why)) {
    umount(at.c_str());
  }
  std::filesystem::remove(at);
  std::filesystem::remove(image);
  return why;
}

volume::volume(const std::string& directory) : path_(directory), image_(directory + ".image") {
  std::string why;
  std::filesystem::create_directory(path_);
  EXPECT_TRUE(succeeds({"truncate", "--size", "16M", image_}, &why) &&
              succeeds({"mkfs.ext4", "-q", image_}, &why) &&
              succeeds({"mount", "-o", "loop", image_, path_}, &why))
      << why;
  root_ = open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  EXPECT_GE(root_, 0);
  write_began_ = clock::now();
  writer_ = std::thread(&volume::write_on, this);
}

volume::~volume() {
  EXPECT_EQ(thaw(), EINVAL) << path_ << " was left frozen";
  stop_ = true;
  writer_.join();
  close(root_);
  EXPECT_EQ(umount2(path_.c_str(), MNT_DETACH), 0);
  std::filesystem::remove(path_);
  std::filesystem::remove(image_);
}

int volume::freeze() const { return ioctl(root_, FIFREEZE, 0) == 0 ? 0 : errno; }
int volume::thaw() const { return ioctl(root_, FITHAW, 0) == 0 ? 0 : errno; }

void volume::write_on() {
  const int file = open((path_ + "/written").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
  for (char letter = 'a'; !stop_; letter = letter == 'z' ? 'a' : static_cast<char>(letter + 1)) {
    {
      const std::lock_guard lock(mutex_);
      write_began_ = clock::now();
    }
    EXPECT_EQ(pwrite(file, &letter, 1, 0), 1);
    EXPECT_EQ(fdatasync(file), 0);
    {
      const std::lock_guard lock(mutex_);
      longest_ = std::max(longest_, clock::now() - write_began_);
    }
    std::this_thread::sleep_for(milliseconds(3));
  }
  close(file);
}

milliseconds volume::stalled_for() const {
  const std::lock_guard lock(mutex_);
  return std::chrono::duration_cast<milliseconds>(clock::now() - write_began_);
}

bool volume::wait_until_frozen() const {
  return wait_for([&] { return stalled_for() >= kFrozen; });
}

bool volume::wait_until_thawed() const {
  return wait_for([&] { return stalled_for() < kFrozen / 3; });
}

milliseconds volume::longest_stall() {
  const milliseconds now = stalled_for();
  const std::lock_guard lock(mutex_);
  return std::max(
      now, std::chrono::duration_cast<milliseconds>(std::exchange(longest_, clock::duration{})));
}

}  // namespace vexo::test

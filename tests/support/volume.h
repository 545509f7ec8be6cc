#ifndef TESTS_SUPPORT_VOLUME_H_
#define TESTS_SUPPORT_VOLUME_H_

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

namespace vexo::test {

// An ext4 file system on an image, mounted by loop, with a writer on it that has every write on the
// disk before the next. Thawed, unmounted and removed at destruction. Needs root and loop devices.
class volume {
 public:
  // Why there can be none here; empty when there can.
  static std::string unavailable();

  // `directory` is created; the image lies beside it.
  explicit volume(const std::string& directory);
  ~volume();
  volume(const volume&) = delete;
  volume& operator=(const volume&) = delete;

  const std::string& path() const { return path_; }
  // FIFREEZE and FITHAW: 0 or an errno.
  int freeze() const;
  int thaw() const;
  // The writer has made no progress for some time, waiting until that is so.
  bool wait_until_frozen() const;
  // The writer makes progress, waiting until that is so.
  bool wait_until_thawed() const;
  // The longest time that one write has taken since the last call, one under way included.
  std::chrono::milliseconds longest_stall();

 private:
  using clock = std::chrono::steady_clock;

  void write_on();
  std::chrono::milliseconds stalled_for() const;

  std::string path_;
  std::string image_;
  int root_ = -1;
  std::atomic<bool> stop_ = false;
  mutable std::mutex mutex_;
  clock::time_point write_began_;  // both under mutex_
  clock::duration longest_{};
  std::thread writer_;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_VOLUME_H_

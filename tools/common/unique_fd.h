#ifndef TOOLS_COMMON_UNIQUE_FD_H_
#define TOOLS_COMMON_UNIQUE_FD_H_

namespace vexo::tools {

// A descriptor that is closed with its owner.
class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  ~unique_fd() { reset(); }
  unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
  unique_fd& operator=(unique_fd&& other) noexcept;
  unique_fd(const unique_fd&) = delete;
  unique_fd& operator=(const unique_fd&) = delete;

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release();
  void reset();

 private:
  int fd_ = -1;
};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_UNIQUE_FD_H_

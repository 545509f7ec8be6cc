#ifndef TESTS_SUPPORT_DAEMON_H_
#define TESTS_SUPPORT_DAEMON_H_

#include <sys/resource.h>
#include <sys/types.h>

#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "log_sink.h"

namespace vexo::test {

inline constexpr char kTcpTarget[] = "127.0.0.1:3265";
inline constexpr char kUnixTarget[] = "unix:///tmp/iscsi/plugin_server.sock";

// Of the sample inventory.
inline constexpr char kLun[] = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";
inline constexpr char kLunNaa[] = "60014051a2b3c4dd5e6fd7a8bd9c0dde";
inline constexpr char kReplicaLun[] = "c3d9e8b1-2f64-4b7a-9e05-7714aa0c6f2e";  // needs no mirror
inline constexpr char kUnsupportedLun[] = "0e984725-c51c-4bf4-9960-e1c80e27aba0";

// Whatever the processes of the sandbox send to /dev/log, from construction on. One at a time.
class dev_log : public log_sink {
 public:
  dev_log();
  ~dev_log() override;

  // A log service that hangs: nothing more is read for as long as the lock is held, and nobody may
  // ask for lines or their count.
  std::unique_lock<std::mutex> hold() { return std::unique_lock(reading_); }

 private:
  void read_all();
  // A process that has been answered has sent what it logged before.
  void catch_up() const override;

  int socket_;
  mutable std::mutex reading_;  // from before a datagram is taken until it is added
  std::thread reader_;
};

// How to start the daemon.
struct daemon_options {
  std::string inventory = PROJECT_SOURCE_DIR "/iscsi_conf/standin/sample_luns.json";
  bool with_directory = true;              // /tmp/iscsi is there
  std::optional<rlimit> open_files;        // RLIMIT_NOFILE to start with
  bool may_raise_limits = true;            // CAP_SYS_RESOURCE
  std::optional<std::string> library_dir;  // LD_LIBRARY_PATH
  std::optional<std::string> preload;      // LD_PRELOAD
};

// A process of the real daemon in the sandbox. Killed at destruction, by its pid.
class daemon_process {
 public:
  // Starts it, and waits until it serves unless `serves` is false; only that needs the log.
  explicit daemon_process(dev_log* log, const daemon_options& how = {}, bool serves = true);
  ~daemon_process();
  daemon_process(const daemon_process&) = delete;
  daemon_process& operator=(const daemon_process&) = delete;

  pid_t pid() const { return pid_; }
  bool alive() const;
  // Waits for its end. The wait status; empty when it has not ended.
  std::optional<int> wait();
  // Stops it with SIGSTOP; it is stopped when this returns.
  void stop() const;
  // Ends it with SIGKILL.
  void kill();

 private:
  pid_t pid_ = -1;
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_DAEMON_H_

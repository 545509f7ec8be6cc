#ifndef TESTS_SUPPORT_PROGRAM_H_
#define TESTS_SUPPORT_PROGRAM_H_

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "log_sink.h"

namespace vexo::test {

// A command line.
using words = std::vector<std::string>;

// The environment of this process, after `variables` ("NAME=value"), which count more.
words environment_with(const words& variables);
// As the exec functions take them, for as long as `strings` lives.
std::vector<char*> pointers_to(words* strings);

// A program started by a test, with its output collected. Ended with SIGKILL, by its pid, when it
// is still running at destruction.
class program {
 public:
  // `variables` ("NAME=value") are added to the environment.
  explicit program(words arguments, const words& variables = {});
  ~program();
  program(const program&) = delete;
  program& operator=(const program&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int number) const;
  // Whether `part` has come on stdout, or on stderr, waiting for it.
  bool wait_for_out(std::string_view part);
  bool wait_for_err(std::string_view part);
  // Nobody reads its stdout any more.
  void close_out();
  // Waits for its end: the exit status, 128 and the signal that ended it, or -1 when it goes on.
  int wait(std::chrono::seconds patience = kPatience);

  std::string out();
  std::string err();

 private:
  struct stream {
    int fd = -1;
    std::string text;                   // under mutex_
    std::atomic<bool> no_more = false;  // what is in the pipe is all that is wanted
    std::thread reader;
  };

  void read_all(stream* from);
  bool wait_for(const stream& in, std::string_view part);
  void close_stream(stream* from);

  pid_t pid_ = -1;
  stream out_;
  stream err_;
  std::mutex mutex_;
  std::condition_variable more_;
};

// A program that has ended.
struct ended_program {
  int status;
  std::string out;
  std::string err;
};
ended_program run(words arguments, const words& variables = {},
                  std::chrono::seconds patience = kPatience);

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_PROGRAM_H_

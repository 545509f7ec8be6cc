#include "program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

namespace vexo::test {

words environment_with(const words& variables) {
  words environment = variables;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    environment.emplace_back(*variable);
  }
  return environment;
}

std::vector<char*> pointers_to(words* strings) {
  std::vector<char*> pointers;
  pointers.reserve(strings->size() + 1);
  for (auto& text : *strings) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

program::program(words arguments, const words& variables) {
  words environment = environment_with(variables);
  std::vector<char*> argv = pointers_to(&arguments);
  std::vector<char*> envp = pointers_to(&environment);

  int out[2];
  int err[2];
  EXPECT_EQ(pipe2(out, O_CLOEXEC), 0);
  EXPECT_EQ(pipe2(err, O_CLOEXEC), 0);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(out[1], STDOUT_FILENO);
    dup2(err[1], STDERR_FILENO);
    execvpe(argv[0], argv.data(), envp.data());
    _exit(127);
  }
  EXPECT_GT(pid_, 0);
  close(out[1]);
  close(err[1]);
  out_.fd = out[0];
  err_.fd = err[0];
  for (stream* from : {&out_, &err_}) from->reader = std::thread(&program::read_all, this, from);
}

program::~program() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close_stream(&out_);
  close_stream(&err_);
}

void program::signal(int number) const { kill(pid_, number); }

bool program::wait_for_out(std::string_view part) { return wait_for(out_, part); }
bool program::wait_for_err(std::string_view part) { return wait_for(err_, part); }

int program::wait(std::chrono::seconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  pid_ = -1;
  close_stream(&out_);
  close_stream(&err_);
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string program::out() {
  const std::lock_guard lock(mutex_);
  return out_.text;
}

std::string program::err() {
  const std::lock_guard lock(mutex_);
  return err_.text;
}

void program::read_all(stream* from) {
  constexpr int kLookMs = 20;
  char buffer[4096];
  for (;;) {
    // A child of the program may hold the pipe open for longer than anybody wants to read.
    pollfd news = {from->fd, POLLIN, 0};
    if (poll(&news, 1, kLookMs) == 0) {
      if (from->no_more) return;
      continue;
    }
    const ssize_t size = read(from->fd, buffer, sizeof buffer);
    if (size <= 0) return;
    const std::lock_guard lock(mutex_);
    from->text.append(buffer, static_cast<std::size_t>(size));
    more_.notify_all();
  }
}

bool program::wait_for(const stream& in, std::string_view part) {
  std::unique_lock lock(mutex_);
  return more_.wait_until(lock, std::chrono::system_clock::now() + kPatience,
                          [&] { return in.text.find(part) != std::string::npos; });
}

void program::close_out() { close_stream(&out_); }

void program::close_stream(stream* from) {
  if (!from->reader.joinable()) return;
  from->no_more = true;
  from->reader.join();
  close(from->fd);
}

ended_program run(words arguments, const words& variables, std::chrono::seconds patience) {
  program it(std::move(arguments), variables);
  const int status = it.wait(patience);
  return {status, it.out(), it.err()};
}

}  // namespace vexo::test

#include "guard_watch.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "local_socket.h"

namespace vexo::tools {

namespace {

// Between two looks, which take turns.
constexpr std::chrono::milliseconds kPause{500};

}  // namespace

guard_watch::guard_watch(std::chrono::milliseconds patience) : patience_(patience) {
  views_[0].where = parse_endpoint(kTcpEndpoint);
  views_[1].where = parse_endpoint(kUnixEndpoint);
}

void guard_watch::step() {
  if (socket_) {
    pollfd word = {fd(), POLLIN, 0};
    if (poll(&word, 1, 0) > 0) {
      read_first_word();
    } else if (clock::now() >= next_) {
      finish(condition::silent);
    }
  } else if (clock::now() >= next_) {
    begin();
  }
}

void guard_watch::forget() {
  for (view& one : views_) one.is = condition::unknown;
  socket_.reset();
  next_ = clock::now();
}

void guard_watch::begin() {
  begun_ = clock::now();
  socket_ = begin_connection(views_[current_].where);
  if (!socket_) {
    finish_with_error(errno);
    return;
  }
  next_ = begun_ + patience_;
  if (views_[current_].where.kind == endpoint::family::unix_socket) identify_process();
}

void guard_watch::read_first_word() {
  char byte = 0;
  const ssize_t size = recv(fd(), &byte, 1, 0);
  if (size > 0) {
    finish(condition::serving);
  } else if (size == 0) {
    finish(condition::full);
  } else {
    finish_with_error(errno);
  }
}

void guard_watch::finish_with_error(int error) {
  const std::string reason = std::generic_category().message(error);
  switch (error) {
    case ECONNREFUSED:
    case ENOENT:
      finish(condition::absent, reason);
      return;
    case ECONNRESET:
      finish(condition::full);
      return;
    case EAGAIN:  // as many wait already as may
    case ETIMEDOUT:
      finish(condition::silent);
      return;
    default:
      finish(condition::barred, reason);
  }
}

void guard_watch::finish(condition is, const std::string& reason) {
  view& one = views_[current_];
  if (one.is != is) one.since = begun_;
  one.until = clock::now();
  one.is = is;
  one.reason = reason;
  socket_.reset();
  current_ = (current_ + 1) % views_.size();
  next_ = one.until + kPause;
}

void guard_watch::identify_process() {
  if (process_ && process_->pid() == listener_of(fd()) && process_->alive()) return;
  try {
    process_ = daemon_process::behind(fd());
    // What was seen of another process says nothing about this one.
    for (view& one : views_) one.is = condition::unknown;
  } catch (const std::runtime_error&) {
    // Told when it is needed; the next look tries again.
  }
}

}  // namespace vexo::tools

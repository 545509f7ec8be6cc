#include "plugin_guard/watch.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <stdexcept>
#include <system_error>

#include "common/connection.h"
#include "plugin_guard/daemon_sockets.h"

namespace vexo::tools {

namespace {

// Between the end of one look and the next, which is at the other endpoint.
constexpr std::chrono::milliseconds kPause{500};

// The port of this side of the connection; 0 when it has none.
std::uint16_t local_port(int connection) {
  sockaddr_in address = {};
  socklen_t size = sizeof address;
  if (getsockname(connection, reinterpret_cast<sockaddr*>(&address), &size) != 0) return 0;
  return ntohs(address.sin_port);
}

}  // namespace

watch::watch(std::chrono::milliseconds patience) : patience_(patience) {
  views_[0].where = parse_endpoint(kTcpEndpoint);
  views_[1].where = parse_endpoint(kUnixEndpoint);
}

void watch::step() {
  if (socket_) {
    pollfd watched = {fd(), POLLIN, 0};
    if (poll(&watched, 1, 0) > 0) {
      read_first_byte();
    } else if (clock::now() >= next_) {
      finish(condition::silent);
    }
  } else if (clock::now() >= next_) {
    begin();
  }
}

void watch::look_at(std::size_t at) {
  socket_.reset();
  current_ = at;
  begin();
}

void watch::forget() {
  for (view& one : views_) one.is = condition::not_looked_at;
  socket_.reset();
  next_ = clock::now();
}

void watch::begin() {
  begun_ = clock::now();
  if (!is_at_unix_socket() && process_ && !shares_network(process_->pid())) {
    finish(condition::local_error, "the daemon is in another network namespace");
    return;
  }
  socket_ = begin_connection(views_[current_].where);
  if (!socket_) {
    finish_with_error(errno);
    return;
  }
  next_ = begun_ + patience_;
  if (is_at_unix_socket()) identify_process();
}

void watch::read_first_byte() {
  char byte = 0;
  const ssize_t size = recv(fd(), &byte, 1, 0);
  if (size > 0) {
    finish(condition::serving);
  } else if (size == 0) {
    finish(condition::closed);
  } else {
    finish_with_error(errno);
  }
}

void watch::finish_with_error(int error) {
  const std::string reason = std::generic_category().message(error);
  switch (error) {
    case ECONNREFUSED:
    case ENOENT:
      finish(condition::refused, reason);
      return;
    case ECONNRESET:
      finish(condition::closed);
      return;
    case EAGAIN:  // the queue of connections to accept is full
    case ETIMEDOUT:
      finish(condition::silent);
      return;
    default:
      finish(condition::local_error, reason);
  }
}

void watch::finish(condition is, const std::string& reason) {
  view& one = views_[current_];
  bool& served = served_[current_];
  if (is == condition::serving) served = served || is_by_process(is);
  const bool by_process = is != condition::serving && served && is_by_process(is);
  if (one.is != is || one.by_process != by_process) one.since = begun_;
  one.until = clock::now();
  one.is = is;
  one.by_process = by_process;
  one.reason = reason;
  socket_.reset();
  current_ = (current_ + 1) % views_.size();
  next_ = one.until + kPause;
}

void watch::identify_process() {
  if (process_ && process_->pid() == listener_of(fd()) && process_->alive()) return;
  const bool was_known = process_.has_value();
  process_.reset();
  try {
    process_ = daemon_process::behind(fd());
  } catch (const std::runtime_error&) {
    // The next look tries again.
  }
  if (!process_ && !was_known) return;
  // What was found about another process says nothing about this one.
  for (view& one : views_) one.is = condition::not_looked_at;
  served_ = {};
}

bool watch::is_by_process(condition is) const {
  if (!process_ || !process_->alive()) return false;
  if (is_at_unix_socket()) return true;
  // Another process may listen on the port too, and a firewall may drop or refuse the connection.
  const auto use = port_use_of(process_->pid(), views_[current_].where.port, local_port(fd()));
  if (!use) return false;
  switch (is) {
    case condition::serving:
      return use->has_accepted;
    case condition::silent:
      return use->has_accepted || use->has_waiting;
    case condition::refused:
      return !use->listens;
    default:
      return false;
  }
}

bool watch::is_at_unix_socket() const {
  return views_[current_].where.kind == endpoint::family::unix_socket;
}

}  // namespace vexo::tools

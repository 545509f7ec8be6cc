#include "log_sink.h"

#include <algorithm>
#include <ostream>
#include <utility>

namespace vexo::test {

std::ostream& operator<<(std::ostream& out, const log_line& line) {
  return out << '<' << line.priority << '>' << line.text;
}

void log_sink::add(const log_line& line) {
  {
    const std::lock_guard lock(mutex_);
    lines_.push_back(line);
    added_.notify_all();
  }
  const std::lock_guard looking(look_mutex_);
  if (look_) look_(line);
}

std::shared_ptr<void> log_sink::watch(std::function<void(const log_line&)> look) {
  const std::lock_guard lock(look_mutex_);
  look_ = std::move(look);
  return {this, [this](void*) {
            const std::lock_guard unset(look_mutex_);
            look_ = nullptr;
          }};
}

void log_sink::clear() {
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<log_line> log_sink::lines() const {
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::size_t log_sink::count(const log_line& line) const {
  const std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
}

bool log_sink::wait_for(const log_line& line) const {
  std::unique_lock lock(mutex_);
  return added_.wait_until(lock, std::chrono::system_clock::now() + kPatience, [&] {
    return std::find(lines_.begin(), lines_.end(), line) != lines_.end();
  });
}

}  // namespace vexo::test

#include "log_sink.h"

#include <algorithm>
#include <ostream>
#include <utility>

namespace vexo::test {

std::ostream& operator<<(std::ostream& out, const log_line& line) {
  return out << '<' << line.priority << '>' << line.text;
}

void log_sink::add(log_line line) {
  const std::lock_guard lock(mutex_);
  lines_.push_back(std::move(line));
  added_.notify_all();
}

void log_sink::clear() {
  catch_up();
  const std::lock_guard lock(mutex_);
  lines_.clear();
}

std::vector<log_line> log_sink::lines() const {
  catch_up();
  const std::lock_guard lock(mutex_);
  return lines_;
}

std::size_t log_sink::count(std::string_view part) const {
  const auto all = lines();
  return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const auto& line) {
    return line.text.find(part) != std::string::npos;
  }));
}

std::optional<log_line> log_sink::wait_for(std::string_view part) const {
  std::unique_lock lock(mutex_);
  auto found = lines_.end();
  const bool came = added_.wait_until(lock, std::chrono::system_clock::now() + kPatience, [&] {
    found = std::find_if(lines_.begin(), lines_.end(), [&](const auto& line) {
      return line.text.find(part) != std::string::npos;
    });
    return found != lines_.end();
  });
  return came ? std::optional(*found) : std::nullopt;
}

}  // namespace vexo::test

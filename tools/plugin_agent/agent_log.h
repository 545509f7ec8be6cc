#ifndef TOOLS_PLUGIN_AGENT_AGENT_LOG_H_
#define TOOLS_PLUGIN_AGENT_AGENT_LOG_H_

#include <spdlog/logger.h>

#include <cstddef>
#include <string_view>
#include <type_traits>

#include "common/text.h"

template <>
struct fmt::formatter<vexo::tools::shown_text> : fmt::formatter<std::string_view> {
  template <class Context>
  auto format(const vexo::tools::shown_text& text, Context& context) const {
    return fmt::formatter<std::string_view>::format(text.str(), context);
  }
};

namespace vexo::tools {

template <class T>
inline constexpr bool is_loggable = std::is_arithmetic_v<T> || std::is_same_v<T, shown_text>;
template <std::size_t N>
inline constexpr bool is_loggable<char[N]> = true;  // a literal

// The agent's log: one line on stderr for each message, also for those of gRPC; with its priority
// when that is systemd's journal, otherwise with the time and its level. Any thread may log.
// Text that is not a literal has to be shown_text: the names of appliances, hooks and file systems
// are chosen by others, and may contain anything.
class line_log {
 public:
  explicit line_log(spdlog::logger& to) : to_(to) {}

  template <class... Args>
  void log(spdlog::level::level_enum level, spdlog::format_string_t<const Args&...> form,
           const Args&... args) {
    static_assert((is_loggable<Args> && ...), "text goes through printable() first");
    to_.log(level, form, args...);
  }
  template <class... Args>
  void debug(spdlog::format_string_t<const Args&...> form, const Args&... args) {
    log<Args...>(spdlog::level::debug, form, args...);
  }
  template <class... Args>
  void info(spdlog::format_string_t<const Args&...> form, const Args&... args) {
    log<Args...>(spdlog::level::info, form, args...);
  }
  template <class... Args>
  void warn(spdlog::format_string_t<const Args&...> form, const Args&... args) {
    log<Args...>(spdlog::level::warn, form, args...);
  }
  template <class... Args>
  void error(spdlog::format_string_t<const Args&...> form, const Args&... args) {
    log<Args...>(spdlog::level::err, form, args...);
  }
  template <class... Args>
  void critical(spdlog::format_string_t<const Args&...> form, const Args&... args) {
    log<Args...>(spdlog::level::critical, form, args...);
  }
  void set_level(spdlog::level::level_enum level) { to_.set_level(level); }

 private:
  spdlog::logger& to_;
};

line_log& agent_log();

// A line that is one JSON object and nothing else, for programs that read the log.
void log_record(const shown_text& json, spdlog::level::level_enum level);

// While an object of this class exists, log lines are kept in memory; the last one to be destroyed
// writes them. stderr may lead to a file system that is frozen, directly or through a pipe to
// another program, and whoever writes to that blocks.
class log_hold {
 public:
  log_hold();
  ~log_hold();
  log_hold(const log_hold&) = delete;
  log_hold& operator=(const log_hold&) = delete;
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_AGENT_LOG_H_

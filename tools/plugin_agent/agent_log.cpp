#include "plugin_agent/agent_log.h"

#include <grpc/support/log.h>
#include <spdlog/sinks/base_sink.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <mutex>
#include <string_view>

#include "common/journal.h"

namespace vexo::tools {

namespace {

constexpr char kRecordLogger[] = "record";

void write_all(std::string_view text) {
  while (!text.empty()) {
    const ssize_t size = write(STDERR_FILENO, text.data(), text.size());
    if (size < 0 && errno != EINTR) return;  // there is no other place to report it
    if (size > 0) text.remove_prefix(static_cast<std::size_t>(size));
  }
}

// As syslog has it.
int priority(spdlog::level::level_enum level) {
  switch (level) {
    case spdlog::level::critical:
      return LOG_CRIT;
    case spdlog::level::err:
      return LOG_ERR;
    case spdlog::level::warn:
      return LOG_WARNING;
    case spdlog::level::info:
      return LOG_INFO;
    default:
      return LOG_DEBUG;
  }
}

class holding_sink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  void hold() {
    const std::lock_guard lock(mutex_);
    ++holders_;
  }

  void let_go() {
    const std::lock_guard lock(mutex_);
    if (--holders_ > 0) return;
    write_all(held_);
    held_.clear();
  }

 private:
  void sink_it_(const spdlog::details::log_msg& message) override {
    spdlog::memory_buf_t line;
    if (stderr_is_journal() || message.logger_name == kRecordLogger) {
      const std::string prefix = journal_prefix(priority(message.level));
      line.append(prefix.data(), prefix.data() + prefix.size());
      line.append(message.payload.begin(), message.payload.end());
      line.push_back('\n');
    } else {
      formatter_->format(message, line);
    }
    const std::string_view text(line.data(), line.size());
    if (holders_ > 0) {
      held_ += text;
    } else {
      write_all(text);
    }
  }

  void flush_() override {}

  int holders_ = 0;  // both under mutex_
  std::string held_;
};

struct loggers {
  std::shared_ptr<holding_sink> sink = std::make_shared<holding_sink>();
  spdlog::logger plain{"plugin_agent", sink};
  line_log lines{plain};
  spdlog::logger record{kRecordLogger, sink};

  loggers() {
    sink->set_pattern("%Y-%m-%dT%H:%M:%S.%e%z %^%l%$: %v");
    gpr_set_log_function([](gpr_log_func_args* line) {
      agent_log().log(
          line->severity == GPR_LOG_SEVERITY_ERROR ? spdlog::level::warn : spdlog::level::debug,
          "gRPC: {}", printable(line->message));
    });
  }
};

// Never destroyed: gRPC's threads may log until the process ends.
loggers& all() {
  static auto* const only = new loggers;
  return *only;
}

}  // namespace

line_log& agent_log() { return all().lines; }

void log_record(const shown_text& json, spdlog::level::level_enum level) {
  all().record.log(level, "{}", json);
}

log_hold::log_hold() { all().sink->hold(); }

log_hold::~log_hold() { all().sink->let_go(); }

}  // namespace vexo::tools

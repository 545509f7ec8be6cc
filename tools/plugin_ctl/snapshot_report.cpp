#include "snapshot_report.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "common/output.h"
#include "common/text.h"

namespace vexo::tools {

namespace {

const char* outcome_text(SnapshotStep::Outcome outcome) {
  switch (outcome) {
    case SnapshotStep::SKIPPED:
      return "skipped";
    case SnapshotStep::DONE:
      return "done";
    case SnapshotStep::FAILED:
      return "FAILED";
    case SnapshotStep::INTERRUPTED:
      return "INTERRUPTED";
    default:
      return "not run";
  }
}

shown_text row(const char* step, const char* outcome, const char* seconds,
               const std::string& reason) {
  std::array<char, 64> columns = {};
  std::snprintf(columns.data(), columns.size(), "%-15s  %-11s  %8s", step, outcome, seconds);
  shown_text text = printable(columns.data());
  if (!reason.empty()) text += "  " + printable(reason);
  return text + "\n";
}

double in_seconds(std::chrono::milliseconds time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

snapshot_report::snapshot_report(output_format format, std::string task_id)
    : format_(format), task_id_(std::move(task_id)) {}

void snapshot_report::ended(SnapshotStep step) {
  clear_wait();
  step.set_task_id(task_id_);
  try {
    if (format_ == output_format::json) {
      print(to_json(step) + "\n");
      return;
    }
    if (!heading_printed_) print(row("STEP", "OUTCOME", "SECONDS", "REASON"));
    heading_printed_ = true;
    std::array<char, 32> seconds = {};
    const bool was_run = step.outcome() != SnapshotStep::NOT_RUN;
    if (was_run) std::snprintf(seconds.data(), seconds.size(), "%.3f", step.seconds());
    print(row(step.step().c_str(), outcome_text(step.outcome()), was_run ? seconds.data() : "-",
              step.reason()));
  } catch (const tool_error& error) {
    if (!output_error_) output_error_ = error;
  }
}

void snapshot_report::waiting(const std::string& step, std::chrono::milliseconds elapsed,
                              std::chrono::milliseconds limit) {
  if (!takes_escapes(STDERR_FILENO)) return;
  const auto left = std::max(limit - elapsed, std::chrono::milliseconds::zero());
  std::fprintf(stderr, "\r\x1b[K%s: waiting for a host, %.0f s, %.0f s left", step.c_str(),
               in_seconds(elapsed), in_seconds(left));
  wait_shown_ = true;
}

void snapshot_report::clear_wait() {
  if (wait_shown_) std::fputs("\r\x1b[K", stderr);
  wait_shown_ = false;
}

}  // namespace vexo::tools

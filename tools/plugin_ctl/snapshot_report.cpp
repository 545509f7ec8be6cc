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
               const std::string& rest) {
  std::array<char, 64> columns = {};
  std::snprintf(columns.data(), columns.size(), "%-15s  %-11s  %8s", step, outcome, seconds);
  shown_text text = printable(columns.data());
  if (!rest.empty()) text += "  " + printable(rest);
  return text + "\n";
}

std::string with_lun(const std::string& lun, const std::string& reason) {
  constexpr std::size_t kWidth = 36;  // what most page-80h identifiers are
  std::string text = lun;
  if (!reason.empty() && text.size() < kWidth) text.resize(kWidth, ' ');
  return reason.empty() ? text : text + "  " + reason;
}

double in_seconds(std::chrono::milliseconds time) {
  return std::chrono::duration<double>(time).count();
}

}  // namespace

void snapshot_report::ended(const SnapshotStep& step) {
  clear_wait();
  std::array<char, 32> seconds = {'-'};
  if (step.outcome() != SnapshotStep::NOT_RUN) {
    std::snprintf(seconds.data(), seconds.size(), "%.3f", step.seconds());
  }
  shown_text rows;
  if (!heading_printed_) {
    rows = row("STEP", "OUTCOME", "SECONDS", of_several_ ? with_lun("LUN", "REASON") : "REASON");
  }
  heading_printed_ = true;
  rows += row(step.step().c_str(), outcome_text(step.outcome()), seconds.data(),
              of_several_ ? with_lun(step.task_id(), step.reason()) : step.reason());
  print_line(step, rows);
}

void snapshot_report::verdict(const SnapshotVerdict& verdict) {
  std::array<char, 64> rest = {};
  if (verdict.at_rest_seconds() > 0) {
    std::snprintf(rest.data(), rest.size(), "; at rest for %.3f s", verdict.at_rest_seconds());
  }
  shown_text line = "verdict: " + printable(verdict.verdict()) + printable(rest.data());
  if (!verdict.reason().empty()) line += "; " + printable(verdict.reason());
  print_line(verdict, line + "\n");
}

void snapshot_report::print_line(const google::protobuf::Message& json, const shown_text& row) {
  try {
    print(format_ == output_format::json ? to_json(json) + "\n" : row);
  } catch (const tool_error& error) {
    if (!output_error_) output_error_ = error;
  }
}

void snapshot_report::explain(const shown_text& text) {
  clear_wait();
  say(text);
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

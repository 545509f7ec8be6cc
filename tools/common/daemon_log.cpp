#include "common/daemon_log.h"

#include <systemd/sd-journal.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <exception>
#include <future>
#include <memory>
#include <thread>
#include <utility>

namespace vexo::tools {

namespace {

// The daemon never names itself to the system log, so the C library uses its program's name.
constexpr char kByDaemon[] = "SYSLOG_IDENTIFIER=scsi_plugin_server";
// A busy daemon logs some lines for each of its calls. More are not read, to be quick.
constexpr int kMostLines = 20000;
// A read that takes longer, as on a disk that hangs, goes on in its own thread.
constexpr std::chrono::seconds kReadTime{1};

struct closes {
  void operator()(sd_journal* journal) const { sd_journal_close(journal); }
};

// A field's value in the journal's present entry; empty when the entry has no such field.
std::string field(sd_journal* journal, const std::string& name) {
  const void* data = nullptr;
  std::size_t size = 0;
  if (sd_journal_get_data(journal, name.c_str(), &data, &size) < 0) return "";
  return std::string(static_cast<const char*>(data), size).substr(name.size() + 1);
}

std::string age_text(sd_journal* journal) {
  std::uint64_t microseconds = 0;
  if (sd_journal_get_realtime_usec(journal, &microseconds) < 0) return "";
  const auto age =
      std::chrono::system_clock::now().time_since_epoch() - std::chrono::microseconds(microseconds);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
  return ", " + std::to_string(std::max<decltype(seconds)>(seconds, 0)) + " s ago";
}

}  // namespace

std::optional<std::string> pushed_host(std::string_view log_line) {
  constexpr std::string_view kBegin = " push command to plugin_id=";
  constexpr std::string_view kAddress = " ip=";
  const auto begin = log_line.find(kBegin);
  const auto address = log_line.rfind(kAddress);  // an id may hold anything
  if (!log_line.starts_with("scsi_plugin:plugin_client:") || begin == log_line.npos ||
      address == log_line.npos || address < begin + kBegin.size()) {
    return std::nullopt;
  }
  const auto id = log_line.substr(begin + kBegin.size(), address - begin - kBegin.size());
  return std::string(id) + " (" + std::string(log_line.substr(address + kAddress.size())) + ")";
}

namespace {

std::string read_last_pushed_host() {
  sd_journal* opened = nullptr;
  if (sd_journal_open(&opened, SD_JOURNAL_LOCAL_ONLY | SD_JOURNAL_SYSTEM) < 0) return "";
  const std::unique_ptr<sd_journal, closes> journal(opened);
  if (sd_journal_add_match(opened, kByDaemon, 0) < 0 || sd_journal_seek_tail(opened) < 0) return "";
  std::string process;
  for (int i = 0; i < kMostLines && sd_journal_previous(opened) > 0; ++i) {
    const std::string logged_by = field(opened, "_PID");
    if (i == 0) process = logged_by;
    if (logged_by != process) break;  // an earlier daemon's
    if (const auto host = pushed_host(field(opened, "MESSAGE"))) {
      return "\"" + *host + "\"" + age_text(opened);
    }
  }
  return "";
}

}  // namespace

std::string last_pushed_host() try {
  std::packaged_task<std::string()> read(read_last_pushed_host);
  auto host = read.get_future();
  std::thread(std::move(read)).detach();
  return host.wait_for(kReadTime) == std::future_status::ready ? host.get() : "";
} catch (const std::exception&) {
  return "";
}

}  // namespace vexo::tools

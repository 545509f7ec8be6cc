#include "plugin_guard/status.h"

#include <google/protobuf/util/json_util.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <system_error>

#include "common/output.h"
#include "common/text.h"
#include "common/whole_file.h"

namespace vexo::tools {

namespace {

using std::chrono::system_clock;

found_status nothing_known(const std::string& why) {
  found_status found;
  found.status.set_state(GuardStatus::UNKNOWN);
  found.status.set_error(why +
                         ", so nothing is known of the daemon: start the guard (systemctl start "
                         "scsi-plugin-guard), or name its --status-file");
  found.is_valid = false;
  return found;
}

}  // namespace

std::string time_text(system_clock::time_point when) {
  const std::time_t seconds = system_clock::to_time_t(when);
  std::tm utc = {};
  gmtime_r(&seconds, &utc);
  std::array<char, 32> text = {};
  std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
  return text.data();
}

void write_status(const std::string& path, const GuardStatus& status) {
  replace_file(path, (to_json(status) + "\n").str());
}

found_status read_status(const std::string& path) {
  std::string text;
  struct stat facts = {};
  try {
    text = read_file(path);
    if (stat(path.c_str(), &facts) != 0) throw std::system_error(errno, std::generic_category());
  } catch (const std::system_error& error) {
    return nothing_known("no guard writes " + path + " (" + error.code().message() + ")");
  }
  GuardStatus status;
  google::protobuf::util::JsonParseOptions options;
  options.ignore_unknown_fields = true;
  if (!google::protobuf::util::JsonStringToMessage(text, &status, options).ok()) {
    return nothing_known(path + " is no guard's status");
  }
  const auto age = system_clock::now() - system_clock::from_time_t(facts.st_mtim.tv_sec);
  if (age > kStatusHolds || age < -kStatusHolds) {
    const auto when = time_text(system_clock::from_time_t(facts.st_mtim.tv_sec));
    return nothing_known("the guard has written nothing since " + when);
  }
  return {status};
}

check_result check(const found_status& found) {
  const GuardStatus& status = found.status;
  // What follows a '|' is performance data.
  std::string text = status.error().empty() ? "the daemon serves on both endpoints"
                                            : printable(status.error()).str();
  std::replace(text.begin(), text.end(), '|', '/');
  if (!found.is_valid) return {"SCSI_PLUGIN UNKNOWN: " + text, kCheckUnknown};
  const char* word = "CRITICAL";
  int code = 2;
  if (status.state() == GuardStatus::OK) {
    word = "OK";
    code = 0;
  } else if (status.state() == GuardStatus::DEGRADED) {
    word = "WARNING";
    code = 1;
  }
  std::array<char, 160> numbers = {};
  std::snprintf(numbers.data(), numbers.size(),
                " | hosts=%u;;;0 sweeps=%uc;;;0 restarts=%uc;;;0 last_recovery=%.3fs;;;0",
                status.hosts(), status.sweeps(), status.restarts(), status.last_recovery_seconds());
  return {std::string("SCSI_PLUGIN ") + word + ": " + text + ", since " + status.since() +
              numbers.data(),
          code};
}

}  // namespace vexo::tools

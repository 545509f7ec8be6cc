#include "plugin_agent/checks.h"

#include <linux/capability.h>
#include <spdlog/fmt/fmt.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

#include "common/errors.h"
#include "common/lun_naa.h"
#include "common/split_time.h"
#include "common/subscribe_call.h"
#include "common/text.h"
#include "plugin_agent/appliance.h"
#include "plugin_agent/freezer_process.h"
#include "plugin_agent/host_facts.h"
#include "plugin_agent/scsi_luns.h"
#include "plugin_agent/status_socket.h"
#include "plugin_agent/verbs.h"
#include "plugin_freezer/run_directory.h"

namespace vexo::tools {

namespace {

constexpr char kThaw[] = "thaw with \"plugin_agent --thaw-and-exit\"";

// Whether this process, and so each freezer that it starts, has the capability.
bool has_capability(int number) {
  std::ifstream status("/proc/self/status");
  for (std::string name; status >> name;) {
    std::uint64_t effective = 0;
    if (name == "CapEff:" && status >> std::hex >> effective) return (effective >> number & 1) != 0;
  }
  return false;
}

// Whether this is the machine's own user namespace: only there is CAP_SYS_ADMIN enough to freeze.
bool is_initial_user_namespace() {
  constexpr std::uint64_t kAllIds = 0xFFFFFFFF;
  std::uint64_t first = 0;
  std::uint64_t outside = 0;
  std::uint64_t count = 0;
  std::ifstream("/proc/self/uid_map") >> first >> outside >> count;
  return count == kAllIds;
}

bool memory_can_be_locked() {
  rlimit limit = {};
  return has_capability(CAP_IPC_LOCK) ||
         (getrlimit(RLIMIT_MEMLOCK, &limit) == 0 && limit.rlim_cur == RLIM_INFINITY);
}

void check_freezer(const agent_options& options, findings& found) {
  try {
    found.ok("freezer", freezer_path());
  } catch (const std::runtime_error& error) {
    found.fail("freezer", error.what(), "install the package scsi-plugin-agent whole");
  }
  if (!options.mount_points.empty()) {
    if (has_capability(CAP_SYS_ADMIN) && is_initial_user_namespace()) {
      found.ok("right to freeze", "CAP_SYS_ADMIN");
    } else {
      found.fail("right to freeze", "CAP_SYS_ADMIN is missing here",
                 "run the agent, and this check, as root and outside a container");
    }
  }
  if (memory_can_be_locked()) {
    found.ok("right to lock memory", "the freezer can thaw when nothing can be read from a disk");
  } else {
    found.warn("right to lock memory", "neither CAP_IPC_LOCK nor an unlimited LimitMEMLOCK",
               "run as root: without it a freezer may wait for what it has frozen");
  }
}

std::string left_to_undo(const RestRecord& record) {
  std::vector<std::string> all;
  for (const auto& one : record.file_systems()) {
    all.push_back("file system " + one.mount_point() + " may be frozen");
  }
  if (record.hooks_started() > 0) all.emplace_back("hooks whose thaw has not succeeded");
  if (record.processes_size() > 0) all.emplace_back("a process that may freeze something yet");
  return all.empty() ? "nothing that can be read" : joined(all);
}

void check_run_directory(const agent_options& options, findings& found) {
  const std::string what = "run directory " + options.run_dir;
  try {
    make_run_directory(options.run_dir);
    const run_directory directory(options.run_dir);
    const pid_t holder = directory.lock_holder();
    if (holder > 0) {
      found.ok(what, "freezer " + std::to_string(holder) + " has this host at rest");
    } else if (const auto record = directory.record()) {
      found.fail(what,
                 "an earlier rest is on record, and nobody thaws it: " + left_to_undo(*record),
                 kThaw);
    } else {
      found.ok(what, "can be written to, and nothing is on record as frozen");
    }
  } catch (const std::runtime_error& error) {
    found.fail(what, error.what(), "run as root, or name another one with --run-dir");
  }
}

void check_what_is_frozen(const agent_options& options, findings& found) {
  if (!options.freezes()) {
    found.warn("what is frozen", "neither --fs nor --hooks is given",
               "name them, unless copies as of a power cut are good enough");
  }
  std::string problem;
  const auto hooks = hook_facts(options, problem);
  if (!problem.empty()) {
    found.fail("hooks", problem, "correct --hooks, or the directory's owner and mode");
  } else if (!options.hooks_dir.empty() && hooks.empty()) {
    found.warn("hooks", "there is none in " + options.hooks_dir,
               "link the ready ones of /usr/share/plugin_agent/hooks there, or leave --hooks out");
  }
  for (const auto& hook : hooks) {
    const std::string what = "hook " + hook.name();
    if (hook.refused().empty()) {
      found.ok(what, "is run");
    } else if (options.tolerates_refused_hooks) {
      found.warn(what, "is refused: " + hook.refused(), "chmod or chown it, or remove it");
    } else {
      found.fail(what, "is refused, and so every snapshot fails: " + hook.refused(),
                 "chmod or chown it, or remove it");
    }
  }
  for (const auto& one : file_system_facts(options)) {
    const std::string what = "file system " + one.mount_point();
    if (one.can_be_frozen()) {
      found.ok(what,
               one.type() + " on " + one.source() + ", as far as can be seen without freezing");
    } else {
      found.fail(what, one.reason(), "mount it, or correct --fs");
    }
  }
}

void check_limits(const agent_options& options, findings& found) {
  if (options.hold > kLeastHold) return;
  found.warn("--hold",
             fmt::format("is {:g} s, and the appliance may need {} s: its --max-split, {} s unless "
                         "given, and {} s",
                         std::chrono::duration<double>(options.hold).count(), kLeastHold.count(),
                         kMaxSplit.count(), (kLeastHold - kMaxSplit).count()),
             "lengthen --max-freeze, of which --hold is two thirds unless given");
}

void check_metrics(const agent_options& options, findings& found) {
  if (options.metrics.empty()) return;
  const auto folder = std::filesystem::absolute(options.metrics).parent_path();
  if (access(folder.c_str(), W_OK) == 0) return;
  found.warn("--metrics", folder.string() + ": " + std::generic_category().message(errno),
             "make that directory, or name another file: the agent runs without metrics");
}

void check_agent(const agent_options& options, findings& found) {
  const std::string next = "start it: \"systemctl start scsi-plugin-agent\"";
  try {
    const auto agents = ask_agents(options.run_dir);
    if (agents.empty()) found.warn("agent", "none is running", next);
    for (const auto& one : agents) {
      const std::string what = "agent " + std::to_string(one.pid);
      if (one.error.empty()) {
        found.ok(what, "is running");
      } else {
        found.fail(what, one.error, "look at it and its log, and restart it");
      }
    }
  } catch (const std::runtime_error& error) {
    found.warn("agent", error.what(), "run as root");
  }
}

scsiplugin::LunCmd support_question(const agent_options& options, const std::string& lun,
                                    scsiplugin::LunType type) {
  scsiplugin::LunCmd command;
  command.set_plugin_id(options.plugin_id);
  command.mutable_is_lun_support_req()->set_type(type);
  command.mutable_is_lun_support_req()->set_src_lun_id(lun);
  return command;
}

void check_listing(const agent_options& options, appliance_findings& result,
                   const appliance& where) {
  const std::string what = "appliance " + result.name;
  const auto listed = find_listed(*where.stub(), options.plugin_id, kCallTimeout);
  result.answers = listed.status.ok();
  if (!listed.status.ok()) {
    result.found.fail(what, "it does not answer: " + status_text(listed.status),
                      "see \"plugin_ctl probe\" there");
  } else if (listed.entry) {
    result.found.ok(what, "it answers, and lists \"" + options.plugin_id + "\" with the address " +
                              listed.entry->ip());
  } else {
    result.found.ok(what, "it answers; \"" + options.plugin_id + "\" is not subscribed there now");
  }
}

bool is_disk(const HostLun& disk, const std::string& lun) {
  const auto& all = disk.designators();
  return disk.page_80() == lun || naa_of(disk.page_80()) == lun ||
         std::any_of(all.begin(), all.end(), [&](const auto& one) { return one.id() == lun; });
}

// Whether what lies on the disk is brought to rest, as far as can be seen.
void check_disk(const agent_options& options, const std::string& lun, const HostLun& disk,
                findings& found) {
  const std::string what = "LUN " + lun;
  if (disk.lun() != lun) {
    found.warn(what, "names " + disk.device() + ", but not every appliance announces it by that",
               "name " + disk.lun() + " in --lun");
  }
  std::vector<std::string> missing;
  for (const auto& mount_point : disk.file_systems()) {
    const auto& named = options.mount_points;
    if (std::find(named.begin(), named.end(), mount_point) == named.end()) {
      missing.push_back(mount_point);
    }
  }
  if (missing.empty() || !options.hooks_dir.empty()) {
    found.ok(what, "is " + disk.device() + ", with " +
                       (disk.file_systems().empty() ? "no file system mounted"
                                                    : joined(disk.file_systems())));
  } else {
    found.warn(what, "is " + disk.device() + ", and " + joined(missing) + " on it is not frozen",
               "add it to --fs");
  }
}

}  // namespace

void findings::ok(const std::string& what, const std::string& found) {
  note(CheckReport::Check::OK, what, found, "");
}

void findings::warn(const std::string& what, const std::string& found, const std::string& next) {
  note(CheckReport::Check::WARNING, what, found, next);
}

void findings::fail(const std::string& what, const std::string& found, const std::string& next) {
  note(CheckReport::Check::FAILURE, what, found, next);
}

void findings::note(CheckReport::Check::Result result, const std::string& what,
                    const std::string& found, const std::string& next) {
  auto& one = all_.emplace_back();
  one.set_result(result);
  one.set_what(printable(what));
  one.set_found(printable(found));
  one.set_next(next);
}

void check_host(const agent_options& options, findings& found) {
  check_freezer(options, found);
  check_run_directory(options, found);
  check_what_is_frozen(options, found);
  check_limits(options, found);
  check_metrics(options, found);
  check_agent(options, found);
}

appliance_findings check_appliance(const agent_options& options, const endpoint& where,
                                   const event& stop) {
  appliance_findings result;
  result.name = where.text;
  appliance daemon(where);
  try {
    daemon.connect(stop);
  } catch (const std::runtime_error& error) {
    result.found.fail(
        "appliance " + result.name, error.what(),
        "see that its name and port are right, that scsi_plugin_server runs there and "
        "that no firewall is in between");
    return result;
  }
  result.name = daemon.name();
  check_listing(options, result, daemon);
  for (const auto& lun : options.luns) {
    for (const auto type : {scsiplugin::LUN_TYPE_80, scsiplugin::LUN_TYPE_83}) {
      if (!result.answers || stop.raised()) return result;
      const auto answer = daemon.lun_op(support_question(options, lun, type), kCallTimeout);
      if (!answer.status.ok()) {
        result.found.fail(
            "appliance " + result.name,
            "it does not say whether it supports LUN " + lun + ": " + status_text(answer.status),
            "see the lines of its system log that begin with \"scsi_plugin:\"");
        result.answers = false;
      }
      if (!answer.yes) continue;
      result.supported.push_back(lun);
      break;
    }
  }
  return result;
}

void check_luns(const agent_options& options, const std::vector<appliance_findings>& appliances,
                findings& found) {
  if (options.any_lun)
    found.ok("LUN any", "takes part in every snapshot, also of other hosts' LUNs");
  const auto disks = scsi_luns();
  for (const auto& lun : options.luns) {
    const std::string what = "LUN " + lun;
    std::vector<std::string> by;
    bool all_answer = true;
    for (const auto& one : appliances) {
      all_answer = all_answer && one.answers;
      if (std::count(one.supported.begin(), one.supported.end(), lun) > 0) by.push_back(one.name);
    }
    if (!by.empty()) {
      found.ok(what, "is supported by " + joined(by));
    } else if (all_answer) {
      found.fail(what, "no appliance supports it: it is unknown there, or of another kind",
                 "compare it letter by letter with what \"plugin_agent luns\" shows");
    } else {
      found.warn(what, "no appliance that answers supports it", "check again when all answer");
    }
    const auto disk = std::find_if(disks.begin(), disks.end(),
                                   [&](const auto& one) { return is_disk(one, lun); });
    if (disk != disks.end()) {
      check_disk(options, lun, *disk, found);
    } else {
      found.warn(what, "not found among this host's SCSI disks by page 80h or 83h",
                 "see \"plugin_agent luns\"; a UUID cannot be found this way");
    }
  }
}

}  // namespace vexo::tools

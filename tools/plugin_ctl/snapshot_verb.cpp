#include <algorithm>
#include <memory>

#include "common/number_option.h"
#include "snapshot.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

struct command_line {
  std::vector<std::string> p80;
  std::string group;
  handshake common;  // from the other options: for the one LUN, or for all
  double max_split = kMaxSplit.count();
  std::string no_host = "fail";
  snapshot_options options;
};

[[noreturn]] void refuse(const std::string& reason, const std::string& next) {
  throw tool_error({exit_code::usage, "plugin_ctl snapshot", reason, next});
}

// The LUNs as the command line and the file name them.
lun_group luns_of(const command_line& given) {
  if (given.group.empty() == given.p80.empty()) {
    refuse(given.group.empty() ? "the command line has neither --p80 nor --group"
                               : "the command line has both --p80 and --group",
           "name the LUNs with --p80, or with --group FILE");
  }
  const handshake& common = given.common;
  if (given.p80.size() == 1) {
    handshake lun = common;
    lun.p80 = given.p80.front();
    return {lun};
  }
  if (!(common.p83 + common.uuid + common.dst_uuid + common.dst_p80 + common.dst_p83).empty()) {
    refuse("--p83, --uuid, --dst-uuid, --dst-p80 and --dst-p83 say something of one LUN",
           "write the LUNs' identifiers to a file and name it with --group");
  }
  lun_group luns;
  if (!given.group.empty()) luns = read_lun_group(given.group);
  for (const auto& p80 : given.p80) {
    const bool known =
        std::any_of(luns.begin(), luns.end(), [&](const handshake& lun) { return lun.p80 == p80; });
    if (known) refuse("--p80 " + p80 + " is given twice", "name each LUN once");
    luns.emplace_back().p80 = p80;
  }
  for (auto& lun : luns) {
    lun.replica = lun.replica || common.replica;
    lun.cmd_sn = common.cmd_sn;
    lun.qel_sn = common.qel_sn;
  }
  return luns;
}

}  // namespace

void add_snapshot_verb(CLI::App& app, session& with) {
  const auto given = std::make_shared<command_line>();
  CLI::App* const verb = add_verb(
      app, with, "snapshot",
      "Takes a snapshot of one LUN, or of several at one moment, as the local caller does:\n"
      "announces it to the hosts, runs the mirror command, waits until the hosts are at rest, "
      "runs\n"
      "the split command, asks the daemon whether they were at rest until then, and ends the\n"
      "handshake, also when something fails or Ctrl-C ends it. Exit code 0 means that the copy is\n"
      "consistent, or crash-consistent where --no-host allows that. The commands are run by\n"
      "/bin/sh with the LUNs' identifiers in VEXO_SRC_LUN_P80, VEXO_SRC_LUN_P83,\n"
      "VEXO_SRC_LUN_UUID, VEXO_DST_LUN_UUID, VEXO_DST_LUN_P80 and VEXO_DST_LUN_P83 (lists\n"
      "separated by spaces for several LUNs) and a JSON file of all in VEXO_GROUP; their output\n"
      "goes to stderr. From the end of the wait to the end of the split the hosts are at rest:\n"
      "keep the split short",
      "plugin_ctl snapshot --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6 \\\n"
      "    --mirror 'lvcreate --snapshot ...' --split 'lvconvert --splitmirrors 1 ...'\n"
      "plugin_ctl snapshot --group luns.json --split ./split-all",
      [&with, given] {
        snapshot_options options = given->options;
        options.luns = luns_of(*given);
        options.max_split = std::chrono::ceil<std::chrono::milliseconds>(
            std::chrono::duration<double>(given->max_split));
        options.goes_on_without_host = given->no_host == "crash-consistent";
        return snapshot(with, std::move(options)).run();
      });
  add_text(*verb, "--p80", given->p80,
           "A source LUN's page-80h identifier (repeatable: all at one moment)")
      ->type_name("ID");
  verb->add_option("--group", given->group,
                   "The LUNs as a JSON array of objects: src_lun_p80, and where known src_lun_p83, "
                   "src_lun_uuid, dst_lun_uuid, dst_lun_p80, dst_lun_p83, is_for_replica")
      ->type_name("FILE");
  given->common.add_options(*verb, {"--p83", "--uuid", "--dst-uuid", "--dst-p80", "--dst-p83",
                                    "--replica", "--cmd-sn", "--qel-sn"});
  verb->add_option("--mirror", given->options.mirror, "Shell command that mirrors the LUNs")
      ->type_name("CMD");
  verb->add_option("--split", given->options.split, "Shell command that splits the mirrors")
      ->type_name("CMD");
  verb->add_option("--max-split", given->max_split,
                   "Seconds after which the split is ended and the snapshot fails; less than each "
                   "host's --hold")
      ->check(number_between(0.1, 60.0))
      ->type_name("SECONDS")
      ->capture_default_str();
  add_text(*verb, "--host", given->options.hosts,
           "A host that must be listed from the announcement to the confirmation (repeatable)")
      ->type_name("ID");
  verb->add_option(
          "--no-host", given->no_host,
          "When no host is subscribed, or none answers, or the daemon does not know the LUN "
          "(a mistyped one too): fail, or run the commands all the same")
      ->check(CLI::IsMember({"fail", "crash-consistent"}))
      ->capture_default_str();
}

}  // namespace vexo::tools

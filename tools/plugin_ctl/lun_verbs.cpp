#include <algorithm>
#include <cctype>
#include <memory>
#include <string>
#include <string_view>

#include "common/lun_naa.h"
#include "report.pb.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::LunCmd;
using scsiplugin::LunCmdResp;
using scsiplugin::LunType;

constexpr char kUuid[] = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";  // of the examples
constexpr char kNoTask[] =
    "no handshake is under way for this LUN: the local caller begins one with `plugin_ctl publish "
    "init-snapshot` or `plugin_ctl snapshot`";

// A LUN named by one of its two page identifiers.
struct lun_id {
  std::string p80;
  std::string p83;
  CLI::Option* by_p83 = nullptr;

  LunType type() const {
    return by_p83 != nullptr && by_p83->count() > 0 ? LunType::LUN_TYPE_83 : LunType::LUN_TYPE_80;
  }
  const std::string& text() const { return type() == LunType::LUN_TYPE_83 ? p83 : p80; }
};

// The command whose request `mutable_request` makes. The daemon finds the task by the LUN; the
// request's own field for the task has the same text, for people who read the wire.
template <auto mutable_request>
LunCmd about(const lun_id& id) {
  LunCmd command;
  auto& request = *(command.*mutable_request)();
  if constexpr (requires { request.set_task_id(id.text()); }) request.set_task_id(id.text());
  request.set_type(id.type());
  request.set_src_lun_id(id.text());
  return command;
}

struct lun_verb {
  const char* name;
  const char* description;
  bool by_either;  // --p80 or --p83 names the LUN; else the page-80h identifier, without an option
  const char* command;
  LunCmd (*request)(const lun_id& id);
  const char* if_no;  // what to do when the daemon's answer is no
};

constexpr lun_verb kVerbs[] = {
    {"support", "Asks whether snapshots of a LUN are supported", true, "is_lun_support_req",
     about<&LunCmd::mutable_is_lun_support_req>, kIfNotSupported},
    {"start-mirror", "Reports, as a host plugin does, that the mirror may start", false,
     "start_mirror_req", about<&LunCmd::mutable_start_mirror_req>, kNoTask},
    {"mirror-done",
     "Asks, as a host plugin does, whether the mirror is done. The handshake is looked up\n"
     "under the identifier given, so --p83 finds only one that was begun under the NAA.",
     true, "is_mirror_done_req", about<&LunCmd::mutable_is_mirror_done_req>,
     "the mirror is still running (ask again), or there is no handshake or no such LUN: the "
     "daemon's lines in the system log say which"},
    {"depart",
     "Reports, as a host plugin does, that the host is at rest and the mirror may be split", false,
     "depart_relation_req", about<&LunCmd::mutable_depart_relation_req>, kNoTask},
};

void add_lun_verb(CLI::App& lun, session& with, const lun_verb& row) {
  const auto id = std::make_shared<lun_id>();
  const std::string example =
      std::string("plugin_ctl lun ") + row.name + (row.by_either ? " --p80 " : " ") + kUuid;
  CLI::App* const verb = add_verb(lun, with, row.name, row.description, example, [&with, id, &row] {
    const auto answer =
        with.ask<LunCmd, LunCmdResp>(std::string("LunOp ") + row.command + " for " + id->text(),
                                     &service_stub::LunOp, row.request(*id), with.limits());
    return print_verdict(with, row.command, id->text(), answer, answer.success(), row.if_no);
  });
  if (!row.by_either) {
    add_text(*verb, "ID", id->p80, "The LUN's page-80h identifier, the UUID")->required();
    return;
  }
  CLI::Option_group* const either = verb->add_option_group("LUN", "Which LUN");
  add_text(*either, "--p80", id->p80, "The LUN by its page-80h identifier, the UUID")
      ->type_name("ID");
  id->by_p83 = add_text(*either, "--p83", id->p83,
                        "The LUN by its page-83h identifier, as `plugin_ctl lun naa` prints it")
                   ->type_name("NAA");
  either->require_option(1);
}

// For an option's check().
std::string refuse_other_than_uuid(const std::string& text) {
  constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  const bool fits = std::equal(
      text.begin(), text.end(), kForm.begin(), kForm.end(),
      [](unsigned char c, char form) { return form == 'x' ? std::isxdigit(c) != 0 : c == '-'; });
  return fits ? "" : "\"" + text + "\" is no UUID, such as " + kUuid;
}

void add_naa(CLI::App& lun, session& with) {
  const auto uuid = std::make_shared<std::string>();
  CLI::App* const verb =
      add_verb(lun, with, "naa",
               "Prints the page-83h identifier that the daemon compares with; makes no call",
               std::string("plugin_ctl lun naa ") + kUuid, [&with, uuid] {
                 LunNaa result;
                 result.set_uuid(*uuid);
                 result.set_naa(naa_of(*uuid));
                 const bool as_json = with.format == output_format::json;
                 print((as_json ? to_json(result) : printable(result.naa())) + "\n");
                 return exit_code::done;
               });
  add_text(*verb, "UUID", *uuid, "The LUN's UUID, written as the appliance writes it")
      ->required()
      ->check(CLI::Validator(refuse_other_than_uuid, ""));
}

}  // namespace

LunCmd is_lun_support(const std::string& p80) {
  return about<&LunCmd::mutable_is_lun_support_req>({p80, "", nullptr});
}

void add_lun_verbs(CLI::App& app, session& with) {
  CLI::App* const lun = app.add_subcommand("lun", "What a host plugin asks and reports of one LUN");
  lun->require_subcommand(1);
  lun->footer(
      "Example:\n"
      "  plugin_ctl lun support --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6\n"
      "  plugin_ctl lun support --p83 60014051a2b3c4dd5e6fd7a8bd9c0dde");
  for (const lun_verb& row : kVerbs) add_lun_verb(*lun, with, row);
  add_naa(*lun, with);
}

}  // namespace vexo::tools

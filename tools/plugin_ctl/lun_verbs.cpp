#include <memory>
#include <string>

#include "report.pb.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using scsiplugin::LunCmd;
using scsiplugin::LunCmdResp;
using scsiplugin::LunType;

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

void add_lun_id_options(CLI::App& verb, lun_id& id) {
  CLI::Option_group* const either = verb.add_option_group("LUN", "Which LUN");
  add_text(*either, "--p80", id.p80, "The LUN by its page-80h identifier, the UUID")
      ->type_name("ID");
  id.by_p83 = add_text(*either, "--p83", id.p83,
                       "The LUN by its page-83h identifier, as `plugin_ctl lun naa` prints it")
                  ->type_name("NAA");
  either->require_option(1);
}

// Fills what the requests have in common.
template <class Request>
void name_lun(Request& request, const lun_id& id) {
  request.set_type(id.type());
  request.set_src_lun_id(id.text());
}

// The daemon finds the task by the LUN; its own field goes along for whoever reads the wire.
template <class Request>
void name_task(Request& request, const lun_id& id) {
  request.set_task_id(id.text());
  name_lun(request, id);
}

exit_code ask_lun(session& with, const std::string& command, const lun_id& id,
                  const LunCmd& request, const std::string& if_no) {
  const LunCmdResp answer = with.ask<LunCmd, LunCmdResp>(
      "LunOp " + command + " for " + id.text(), &service_stub::LunOp, request, with.limits());
  return print_verdict(with, command, id.text(), answer, answer.success(), if_no);
}

void add_support(CLI::App& lun, session& with) {
  const auto id = std::make_shared<lun_id>();
  CLI::App* const verb = add_verb(
      lun, with, "support", "Asks whether snapshots of a LUN are supported",
      "plugin_ctl lun support --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6\n"
      "plugin_ctl lun support --p83 60014051a2b3c4dd5e6fd7a8bd9c0dde",
      [&with, id] {
        LunCmd request;
        name_lun(*request.mutable_is_lun_support_req(), *id);
        return ask_lun(with, "is_lun_support_req", *id, request,
                       "the appliance's configuration does not hold this LUN, or its kind is not "
                       "supported: compare the identifier letter by letter, upper and lower case "
                       "differ");
      });
  add_lun_id_options(*verb, *id);
}

void add_mirror_done(CLI::App& lun, session& with) {
  const auto id = std::make_shared<lun_id>();
  CLI::App* const verb = add_verb(
      lun, with, "mirror-done",
      "Asks, as a host plugin does, whether the mirror is done. The handshake is looked up\n"
      "under the identifier given, so --p83 finds only one that was begun under the NAA.",
      "plugin_ctl lun mirror-done --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", [&with, id] {
        LunCmd request;
        name_task(*request.mutable_is_mirror_done_req(), *id);
        return ask_lun(with, "is_mirror_done_req", *id, request,
                       "the mirror is still running (ask again), or there is no handshake or no "
                       "such LUN: the daemon's lines in the system log say which");
      });
  add_lun_id_options(*verb, *id);
}

void add_start_mirror(CLI::App& lun, session& with) {
  const auto id = std::make_shared<lun_id>();
  CLI::App* const verb = add_verb(
      lun, with, "start-mirror", "Reports, as a host plugin does, that the mirror may start",
      "plugin_ctl lun start-mirror 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", [&with, id] {
        LunCmd request;
        name_task(*request.mutable_start_mirror_req(), *id);
        return ask_lun(with, "start_mirror_req", *id, request, kNoTask);
      });
  add_text(*verb, "ID", id->p80, "The LUN's page-80h identifier, the UUID")->required();
}

void add_depart(CLI::App& lun, session& with) {
  const auto id = std::make_shared<lun_id>();
  CLI::App* const verb =
      add_verb(lun, with, "depart",
               "Reports, as a host plugin does, that the host is quiet and the mirror may be split",
               "plugin_ctl lun depart 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", [&with, id] {
                 LunCmd request;
                 name_task(*request.mutable_depart_relation_req(), *id);
                 return ask_lun(with, "depart_relation_req", *id, request, kNoTask);
               });
  add_text(*verb, "ID", id->p80, "The LUN's page-80h identifier, the UUID")->required();
}

// The daemon's own rule: the first 25 characters of the UUID behind the vendor's prefix, and the
// separators, which are no hex digits, turned into one.
std::string naa_of(const std::string& uuid) {
  std::string naa = "6001405" + uuid.substr(0, 25);
  for (char& c : naa) {
    if (c == '-') c = 'd';
  }
  return naa;
}

void add_naa(CLI::App& lun, session& with) {
  const auto uuid = std::make_shared<std::string>();
  CLI::App* const verb =
      add_verb(lun, with, "naa",
               "Prints the page-83h identifier that the daemon compares with; calls nobody",
               "plugin_ctl lun naa 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6", [&with, uuid] {
                 LunNaa result;
                 result.set_uuid(*uuid);
                 result.set_naa(naa_of(*uuid));
                 const bool as_json = with.format == output_format::json;
                 print((as_json ? to_json(result) : printable(result.naa())) + "\n");
                 return exit_code::done;
               });
  add_text(*verb, "UUID", *uuid, "The LUN's UUID, written as the appliance writes it")->required();
}

}  // namespace

void add_lun_verbs(CLI::App& app, session& with) {
  CLI::App* const lun = app.add_subcommand("lun", "What a host plugin asks and reports of one LUN");
  lun->require_subcommand(1);
  lun->footer("Example:\n  plugin_ctl lun support --p80 1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6");
  add_support(*lun, with);
  add_start_mirror(*lun, with);
  add_mirror_done(*lun, with);
  add_depart(*lun, with);
  add_naa(*lun, with);
}

}  // namespace vexo::tools

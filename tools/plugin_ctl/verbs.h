#ifndef TOOLS_PLUGIN_CTL_VERBS_H_
#define TOOLS_PLUGIN_CTL_VERBS_H_

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "session.h"

namespace vexo::tools {

// Each adds one group of verbs. The verb that is on the command line sets session::action.
void add_registry_verbs(CLI::App& app, session& with);
void add_subscribe_verb(CLI::App& app, session& with);
void add_lun_verbs(CLI::App& app, session& with);
void add_publish_verbs(CLI::App& app, session& with);
void add_snapshot_verb(CLI::App& app, session& with);
void add_probe_verb(CLI::App& app, session& with);

// The question whether a LUN is supported, and what to do after a no.
scsiplugin::LunCmd is_lun_support(const std::string& p80);
inline constexpr char kIfNotSupported[] =
    "either the appliance's configuration does not hold this LUN (compare the identifier letter by "
    "letter, upper and lower case differ), or it cannot be read, which the daemon's log says, or "
    "the LUN's kind is not supported";

// A verb whose help ends with `example`, one or more command lines. `run` is called when the
// command line has been read.
CLI::App* add_verb(CLI::App& parent, session& with, const std::string& name,
                   const std::string& description, const std::string& example,
                   std::function<exit_code()> run);

// An option or positional whose text is sent to the daemon, and so has to be UTF-8. With several
// values it is repeatable.
CLI::Option* add_text(CLI::App& verb, const std::string& name, std::string& value,
                      const std::string& description);
CLI::Option* add_text(CLI::App& verb, const std::string& name, std::vector<std::string>& values,
                      const std::string& description);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_VERBS_H_

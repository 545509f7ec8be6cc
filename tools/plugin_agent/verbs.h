#ifndef TOOLS_PLUGIN_AGENT_VERBS_H_
#define TOOLS_PLUGIN_AGENT_VERBS_H_

#include <CLI/CLI.hpp>
#include <string>

#include "common/errors.h"
#include "common/exit_codes.h"
#include "common/interrupt.h"
#include "common/output.h"
#include "plugin_agent/options.h"

namespace vexo::tools {

// What plugin_agent does instead of serving appliances. Each prints its result to stdout, and
// throws tool_error when there is none.
exit_code show_status(const agent_options& options, interrupt& stop);
exit_code check(const agent_options& options, interrupt& stop);
exit_code rehearse(const agent_options& options, interrupt& stop);
exit_code show_luns(const agent_options& options, interrupt& stop);

// Declares the verbs. The one on the command line sets options.verb.
void add_verbs(CLI::App& app, agent_options& options);

// Writes a message to stderr, with the program's name before it.
void say(const shown_text& text);

// As a table's cell: "-" for nothing.
std::string cell(const std::string& text);
template <class Texts>
std::string joined(const Texts& texts) {
  std::string all;
  for (const auto& text : texts) all += (all.empty() ? "" : ", ") + text;
  return all;
}

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_VERBS_H_

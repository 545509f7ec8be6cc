#include <array>
#include <cstdio>
#include <memory>
#include <vector>

#include "common/text.h"
#include "report.pb.h"
#include "verbs.h"

namespace vexo::tools {

namespace {

using google::protobuf::Empty;
using scsiplugin::PluginClientList;
using scsiplugin::PluginService;

struct probe_options {
  bool tcp = false;
  bool unix_socket = false;
};

// A daemon can lose one endpoint and go on serving the other, so each is asked on a new connection.
outcome<PluginClientList> probe_endpoint(const session& with, const endpoint& where) {
  const auto stub = PluginService::NewStub(make_channel(where));
  return call(*stub, &service_stub::PluginConnList, Empty(), with.stop, with.limits());
}

std::vector<endpoint> chosen_endpoints(const session& with, const probe_options& options) {
  if (with.target_given) return {with.where};
  std::vector<endpoint> chosen;
  if (options.tcp || !options.unix_socket) chosen.push_back(parse_endpoint(kTcpEndpoint));
  if (options.unix_socket || !options.tcp) chosen.push_back(parse_endpoint(kUnixEndpoint));
  return chosen;
}

// The endpoint may serve others.
bool is_closed_to_this_user(const ProbedEndpoint& probed) {
  return probed.error().find("Permission denied") != std::string::npos;
}

shown_text as_line(const ProbeReport& report) {
  shown_text line;
  for (const ProbedEndpoint& probed : report.endpoints()) {
    if (!line.empty()) line += "; ";
    line += printable(probed.endpoint());
    if (probed.answers()) {
      std::array<char, 32> text = {};
      std::snprintf(text.data(), text.size(), " answers in %.1f ms", probed.seconds() * 1000);
      line += printable(text.data());
    } else {
      const char* const word = is_closed_to_this_user(probed) ? "NOT OPEN TO THIS USER" : "DOWN";
      line += " " + printable(word) + " (" + printable(probed.error()) + ")";
    }
  }
  return line;
}

exit_code probe(session& with, const probe_options& options) {
  if (with.target_given && (options.tcp || options.unix_socket)) {
    throw tool_error({exit_code::usage, "probe", "--target together with --tcp or --unix",
                      "name one endpoint with --target, or choose among the daemon's own two"});
  }
  ProbeReport report;
  bool all_answer = true;
  for (const endpoint& where : chosen_endpoints(with, options)) {
    const auto result = probe_endpoint(with, where);
    if (result.interrupted) {
      throw tool_error(with.interrupted("probe"));
    }
    ProbedEndpoint& probed = *report.add_endpoints();
    probed.set_endpoint(where.text);
    probed.set_answers(result.answered());
    probed.set_seconds(result.took.count());
    if (!result.answered()) probed.set_error(status_text(result.status));
    if (is_closed_to_this_user(probed)) {
      say(call_problem("PluginConnList", where, result.status).text());
    }
    all_answer = all_answer && result.answered();
  }
  print((with.format == output_format::json ? to_json(report) : as_line(report)) + "\n");
  return all_answer ? exit_code::done : exit_code::unreachable;
}

}  // namespace

void add_probe_verb(CLI::App& app, session& with) {
  const auto options = std::make_shared<probe_options>();
  CLI::App* const verb = add_verb(
      app, with, "probe",
      "Tells in one line whether new connections are served, on the TCP port and on the unix\n"
      "socket of this machine, or on the endpoint named by --target. Exit code 0 or 3",
      "plugin_ctl probe\nplugin_ctl probe --unix\nplugin_ctl --target 10.0.0.7 probe",
      [&with, options] { return probe(with, *options); });
  verb->add_flag("--tcp", options->tcp, "Only 127.0.0.1:" + std::to_string(kDefaultPort));
  verb->add_flag("--unix", options->unix_socket, std::string("Only ") + kUnixEndpoint);
}

}  // namespace vexo::tools

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <thread>
#include <vector>

#include "plugin_agent/checks.h"
#include "plugin_agent/verbs.h"

namespace vexo::tools {

namespace {

using std::chrono::steady_clock;

// Checks all appliances at the same time. False when a signal has interrupted that.
bool check_appliances(const agent_options& options, interrupt& stop,
                      std::vector<appliance_findings>& results) {
  results.resize(options.appliances.size());
  event given_up;
  event news;
  std::atomic<std::size_t> under_way = results.size();
  std::vector<std::jthread> threads;
  for (std::size_t i = 0; i < results.size(); ++i) {
    threads.emplace_back([&, i] {
      results[i] = check_appliance(options, options.appliances[i], given_up);
      --under_way;
      news.raise();
    });
  }
  while (under_way > 0) {
    news.take();
    if (under_way > 0 &&
        stop.wait({news.fd()}, steady_clock::time_point::max()) == interrupt::wake::interrupted) {
      given_up.raise();
      return false;
    }
  }
  return true;
}

const char* result_text(CheckReport::Check::Result result) {
  switch (result) {
    case CheckReport::Check::OK:
      return "ok";
    case CheckReport::Check::WARNING:
      return "warning";
    default:
      return "FAILURE";
  }
}

}  // namespace

exit_code check(const agent_options& options, interrupt& stop) {
  findings all;
  check_host(options, all);
  std::vector<appliance_findings> appliances;
  if (!check_appliances(options, stop, appliances)) return exit_code::interrupted;
  for (const auto& one : appliances) all.add(one.found);
  check_luns(options, appliances, all);
  CheckReport report;
  table rows({"RESULT", "WHAT", "FOUND", "DO"});
  report.set_ok(true);
  for (const auto& one : all.all()) {
    *report.add_checks() = one;
    if (one.result() == CheckReport::Check::FAILURE) report.set_ok(false);
    rows.add({result_text(one.result()), one.what(), one.found(), cell(one.next())});
  }
  print(options.format == output_format::json ? to_json(report) + "\n" : rows.text());
  return report.ok() ? exit_code::done : exit_code::refused;
}

}  // namespace vexo::tools

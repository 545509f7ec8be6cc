#include "plugin_guard/findings.h"

#include <algorithm>

namespace vexo::tools {

using condition = watch::condition;
using clock = std::chrono::steady_clock;

namespace {

bool all_are(const observation& seen, condition what) {
  return std::all_of(seen.endpoints.begin(), seen.endpoints.end(),
                     [&](const auto& one) { return one.is == what; });
}

// Both endpoints refuse connections.
finding no_daemon(const observation& seen) {
  const auto since = std::max(seen.endpoints[0].since, seen.endpoints[1].since);
  const auto until = std::min(seen.endpoints[0].until, seen.endpoints[1].until);
  if (!seen.process_runs) {
    return {GuardStatus::DOWN, "no daemon is running: its supervisor has to start it", since, until,
            false};
  }
  return {GuardStatus::DOWN,
          "the daemon's process runs, but listens nowhere",
          since,
          until,
          seen.endpoints[0].by_process || seen.endpoints[1].by_process,
          seen.endpoints[0].by_process ? 0 : 1};
}

// For one endpoint that does not serve.
finding endpoint_finding(std::size_t at, const observation& seen) {
  const watch::view& one = seen.endpoints[at];
  const std::string& name = one.where.text;
  const bool cures = one.by_process && seen.process_runs;
  const std::string not_restarted =
      cures ? "" : " (not restarted for that: it is not known to be the daemon's own doing)";
  switch (one.is) {
    case condition::silent:
      return {all_are(seen, condition::silent) ? GuardStatus::DOWN : GuardStatus::DEGRADED,
              name + " accepts no new connection" + not_restarted,
              one.since,
              one.until,
              cures,
              at};
    case condition::closed:
      return {GuardStatus::DEGRADED,
              name +
                  " closes new connections at once: the daemon has no file left for one more "
                  "(not restarted for that, which would cut off the hosts it serves)",
              one.since, one.until, false};
    case condition::refused:
      return {GuardStatus::DEGRADED,
              name + " is gone: " + one.reason + not_restarted,
              one.since,
              one.until,
              cures,
              at};
    default:
      return {GuardStatus::DEGRADED, name + " cannot be looked at: " + one.reason, one.since,
              one.until, false};
  }
}

}  // namespace

bool is_complete(const observation& seen) {
  return std::all_of(seen.endpoints.begin(), seen.endpoints.end(),
                     [](const auto& one) { return one.is != condition::not_looked_at; }) &&
         (seen.registry.has_asked || seen.endpoints[1].is != condition::serving);
}

std::vector<finding> findings(const observation& seen, clock::time_point now) {
  std::vector<finding> found;
  const std::string not_restarted =
      seen.process_runs ? "" : " (not restarted: its process is not seen from here)";
  if (seen.registry.error_code == grpc::StatusCode::RESOURCE_EXHAUSTED) {
    found.push_back(
        {GuardStatus::DOWN,
         "the daemon turns every call away: it can start no more threads" + not_restarted,
         seen.registry.error_since, now, seen.process_runs});
  } else if (seen.registry.unanswered_since &&
             now - *seen.registry.unanswered_since >= seen.patience) {
    found.push_back({GuardStatus::DOWN,
                     "the daemon does not answer: a broadcast has met a vanished host, or waits "
                     "for a stalled one" +
                         not_restarted,
                     *seen.registry.unanswered_since, now, seen.process_runs});
  } else if (!seen.registry.error.empty()) {
    found.push_back({GuardStatus::DEGRADED, "the daemon lists no hosts: " + seen.registry.error,
                     seen.registry.error_since, now, false});
  }
  if (all_are(seen, condition::refused)) {
    found.push_back(no_daemon(seen));
  } else {
    for (std::size_t at = 0; at < seen.endpoints.size(); ++at) {
      const condition is = seen.endpoints[at].is;
      if (is == condition::not_looked_at || is == condition::serving) continue;
      found.push_back(endpoint_finding(at, seen));
    }
  }
  return found;
}

}  // namespace vexo::tools

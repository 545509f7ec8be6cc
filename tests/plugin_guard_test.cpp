// What the guard concludes from what it has seen, and when it may end a daemon again.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <vector>

#include "common/unique_fd.h"
#include "plugin_guard/back_off.h"
#include "plugin_guard/daemon_sockets.h"
#include "plugin_guard/findings.h"

namespace vexo::tools {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;
using condition = watch::condition;

// What the guard looks at once more before a restart.
enum last_look { kTcp, kUnix, kList, kNotCured };

TEST(GuardFindings, OnlyAFaultOfTheProcessLeadsToARestart) {
  const auto now = clock::now();
  using change = std::function<void(observation&)>;
  const auto endpoint_is = [](std::size_t at, condition is, bool by_process) -> change {
    return [=](observation& seen) {
      seen.endpoints[at].is = is;
      seen.endpoints[at].by_process = by_process;
    };
  };
  const auto list_is = [&](grpc::StatusCode code) -> change {
    return [=](observation& seen) {
      seen.registry.error = "text";
      seen.registry.error_code = code;
      seen.registry.error_since = now;
    };
  };
  const auto unanswered_for = [&](clock::duration time) -> change {
    return [=](observation& seen) { seen.registry.unanswered_since = now - time; };
  };
  const change tcp_gone = endpoint_is(kTcp, condition::refused, true);
  const change unix_gone = endpoint_is(kUnix, condition::refused, true);
  const change tcp_refused = endpoint_is(kTcp, condition::refused, false);
  const change unix_refused = endpoint_is(kUnix, condition::refused, false);
  const change exhausted = list_is(grpc::StatusCode::RESOURCE_EXHAUSTED);
  const change ended = [](observation& seen) { seen.process_runs = false; };
  const struct {
    std::vector<change> changes;
    GuardStatus::State state;
    last_look cured;
  } cases[] = {
      {{endpoint_is(kTcp, condition::silent, true)}, GuardStatus::DEGRADED, kTcp},
      {{endpoint_is(kTcp, condition::silent, false)}, GuardStatus::DEGRADED, kNotCured},
      {{endpoint_is(kTcp, condition::local_error, false)}, GuardStatus::DEGRADED, kNotCured},
      {{endpoint_is(kUnix, condition::closed, false)}, GuardStatus::DEGRADED, kNotCured},
      {{tcp_refused}, GuardStatus::DEGRADED, kNotCured},
      {{unix_gone}, GuardStatus::DEGRADED, kUnix},
      {{ended, unix_gone}, GuardStatus::DEGRADED, kNotCured},
      {{tcp_gone, unix_gone}, GuardStatus::DOWN, kTcp},
      {{tcp_refused, unix_gone}, GuardStatus::DOWN, kUnix},
      {{tcp_refused, unix_refused}, GuardStatus::DOWN, kNotCured},
      {{ended, tcp_gone, unix_gone}, GuardStatus::DOWN, kNotCured},
      {{unanswered_for(4s)}, GuardStatus::OK, kNotCured},
      {{unanswered_for(5s)}, GuardStatus::DOWN, kList},
      {{ended, unanswered_for(5s)}, GuardStatus::DOWN, kNotCured},
      {{exhausted}, GuardStatus::DOWN, kList},
      {{exhausted, unanswered_for(5s)}, GuardStatus::DOWN, kList},
      {{list_is(grpc::StatusCode::UNIMPLEMENTED)}, GuardStatus::DEGRADED, kNotCured},
  };
  int number = 0;
  for (const auto& [changes, state, cured] : cases) {
    SCOPED_TRACE("case " + std::to_string(number++));
    observation seen;
    seen.registry.has_asked = true;
    for (auto& endpoint : seen.endpoints) endpoint.is = condition::serving;
    seen.process_runs = true;
    seen.patience = 5s;
    for (const auto& each : changes) each(seen);
    const auto found = findings(seen, now);
    ASSERT_EQ(found.size(), state == GuardStatus::OK ? 0U : 1U);
    if (found.empty()) continue;
    EXPECT_EQ(found[0].state, state);
    const auto looked_at = static_cast<last_look>(found[0].endpoint.value_or(kList));
    EXPECT_EQ(found[0].restart_cures ? looked_at : kNotCured, cured);
  }
}

// For either family, because the daemon's library listens to IPv4 on a socket of IPv6.
TEST(PortUse, TellsWhatAProcessDoesWithItsPort) {
  for (const int family : {AF_INET, AF_INET6}) {
    SCOPED_TRACE(family);
    unique_fd listener(socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(listen(listener.get(), 1), 0);  // on a free port of all addresses
    sockaddr_in6 bound = {};
    socklen_t size = sizeof bound;
    getsockname(listener.get(), reinterpret_cast<sockaddr*>(&bound), &size);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = bound.sin6_port;  // at the same place in both
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const unique_fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    std::uint16_t from = 0;
    const auto expect = [&](bool listens, bool has_waiting, bool has_accepted) {
      const auto use = port_use_of(getpid(), ntohs(address.sin_port), from);
      ASSERT_TRUE(use);
      EXPECT_EQ(use->listens, listens);
      EXPECT_EQ(use->has_waiting, has_waiting);
      EXPECT_EQ(use->has_accepted, has_accepted);
    };
    expect(true, false, false);
    ASSERT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    sockaddr_in mine = {};
    size = sizeof mine;
    getsockname(client.get(), reinterpret_cast<sockaddr*>(&mine), &size);
    from = ntohs(mine.sin_port);
    expect(true, true, false);
    const unique_fd accepted(accept(listener.get(), nullptr, nullptr));
    expect(true, false, true);
    const auto of_another = port_use_of(getppid(), ntohs(address.sin_port), from);
    EXPECT_FALSE(of_another && (of_another->listens || of_another->has_accepted));
    listener.reset();
    expect(false, false, true);
  }
}

TEST(GuardBackOff, PausesBeforeTheThirdOfRestartsThatFollowQuickly) {
  const auto start = clock::now();
  back_off pauses;
  EXPECT_LE(pauses.next(), start);
  // When a daemon was ended, after the start, and the pause before the next may be ended. Ten
  // minutes longer than the pause without an end, and there is no pause any more.
  const std::pair<clock::duration, clock::duration> cases[] = {
      {0min, 0min},   {9min, 1min},   {10min, 2min}, {12min, 4min}, {20min, 8min},  {30min, 10min},
      {40min, 10min}, {60min, 10min}, {81min, 0min}, {91min, 1min}, {103min, 0min},
  };
  for (const auto& [ended, paused] : cases) {
    pauses.note(start + ended);
    EXPECT_EQ(pauses.next() - start - ended, paused)
        << std::chrono::floor<std::chrono::minutes>(ended).count();
  }
}

}  // namespace
}  // namespace vexo::tools

// What the guard makes of what it has seen, and when it may end a daemon again.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "common/unique_fd.h"
#include "daemon_sockets.h"
#include "guard_back_off.h"
#include "guard_findings.h"

namespace vexo::tools {
namespace {

using namespace std::chrono_literals;
using clock = std::chrono::steady_clock;
using condition = guard_watch::condition;

constexpr std::size_t kTcp = 0;
constexpr std::size_t kUnix = 1;

TEST(GuardFindings, OnlyWhatTheProcessDoesIsCuredByItsEnd) {
  const auto now = clock::now();
  const auto endpoint_is = [](std::size_t at, condition is, bool by_process) {
    return [=](sighting& seen) {
      seen.endpoints[at].is = is;
      seen.endpoints[at].by_process = by_process;
    };
  };
  const auto list_is = [&](grpc::StatusCode code) {
    return [=](sighting& seen) {
      seen.registry.error = "text";
      seen.registry.error_code = code;
      seen.registry.error_since = now;
    };
  };
  const auto unanswered_for = [&](clock::duration time) {
    return [=](sighting& seen) { seen.registry.unanswered_since = now - time; };
  };
  const auto both = [](auto one, auto other) {
    return [=](sighting& seen) {
      one(seen);
      other(seen);
    };
  };
  const auto ended = [](sighting& seen) { seen.process_runs = false; };
  const auto no_endpoint = [&](bool tcp_by_process, bool unix_by_process) {
    return both(endpoint_is(kTcp, condition::absent, tcp_by_process),
                endpoint_is(kUnix, condition::absent, unix_by_process));
  };
  const auto exhausted = list_is(grpc::StatusCode::RESOURCE_EXHAUSTED);
  const struct {
    const char* name;
    std::function<void(sighting&)> change;
    GuardStatus::State state;
    bool cured;
    std::optional<std::size_t> last_look;  // at an endpoint; empty for the list
  } cases[] = {
      {"TCP dead", endpoint_is(kTcp, condition::silent, true), GuardStatus::DEGRADED, true, kTcp},
      {"TCP firewalled",
       endpoint_is(kTcp, condition::silent, false),
       GuardStatus::DEGRADED,
       false,
       {}},
      {"TCP refused",
       endpoint_is(kTcp, condition::absent, false),
       GuardStatus::DEGRADED,
       false,
       {}},
      {"TCP unseen", endpoint_is(kTcp, condition::barred, false), GuardStatus::DEGRADED, false, {}},
      {"no file left",
       endpoint_is(kUnix, condition::full, false),
       GuardStatus::DEGRADED,
       false,
       {}},
      {"socket removed", endpoint_is(kUnix, condition::absent, true), GuardStatus::DEGRADED, true,
       kUnix},
      {"... of an ended one",
       both(ended, endpoint_is(kUnix, condition::absent, true)),
       GuardStatus::DEGRADED,
       false,
       {}},
      {"listens nowhere", no_endpoint(true, true), GuardStatus::DOWN, true, kTcp},
      {"lost the unix socket", no_endpoint(false, true), GuardStatus::DOWN, true, kUnix},
      {"never seen to listen", no_endpoint(false, false), GuardStatus::DOWN, false, {}},
      {"no daemon", both(ended, no_endpoint(true, true)), GuardStatus::DOWN, false, {}},
      {"hung", unanswered_for(5s), GuardStatus::DOWN, true, {}},
      {"slow", unanswered_for(4s), GuardStatus::OK, false, {}},
      {"hung, unseen process", both(ended, unanswered_for(5s)), GuardStatus::DOWN, false, {}},
      {"no threads", exhausted, GuardStatus::DOWN, true, {}},
      {"... and too slow to say so",
       both(exhausted, unanswered_for(5s)),
       GuardStatus::DOWN,
       true,
       {}},
      {"something else",
       list_is(grpc::StatusCode::UNIMPLEMENTED),
       GuardStatus::DEGRADED,
       false,
       {}},
  };
  for (const auto& one : cases) {
    SCOPED_TRACE(one.name);
    sighting seen;
    seen.registry.has_asked = true;
    for (auto& endpoint : seen.endpoints) endpoint.is = condition::serving;
    seen.process_runs = true;
    seen.patience = 5s;
    one.change(seen);
    const auto found = findings(seen, now);
    EXPECT_EQ(found.size(), one.state == GuardStatus::OK ? 0U : 1U);
    if (found.empty()) continue;
    EXPECT_EQ(found[0].state, one.state);
    EXPECT_EQ(found[0].restart_cures, one.cured);
    if (one.cured) {
      EXPECT_EQ(found[0].endpoint, one.last_look);
    }
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

TEST(GuardBackOff, PausesFromTheThirdOfAQuickSuccession) {
  const auto start = clock::now();
  guard_back_off back_off;
  EXPECT_LE(back_off.next(), start);
  const struct {
    clock::duration ended;   // after the start
    clock::duration paused;  // from then until the next may be
  } cases[] = {
      {0min, 0min},
      {9min, 1min},
      {10min, 2min},
      {12min, 4min},
      {20min, 8min},
      {30min, 10min},
      {40min, 10min},
      {60min, 10min},
      {81min, 0min},  // ten minutes beyond the
                      // pause without one
      {91min, 1min},
      {103min, 0min},
  };
  for (const auto& [ended, paused] : cases) {
    back_off.note(start + ended);
    EXPECT_EQ(back_off.next() - start - ended, paused)
        << std::chrono::floor<std::chrono::minutes>(ended).count();
  }
}

}  // namespace
}  // namespace vexo::tools

// More hosts than anybody has.

#include <sys/resource.h>

#include <algorithm>
#include <future>
#include <optional>

#include "crowd.h"
#include "fault_row.h"
#include "gauge.h"

namespace vexo::test {
namespace {

using enum operation;

// This process has room for both ends of what the daemon refuses.
void raise_own_file_limit() {
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 8192);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  ASSERT_GE(limit.rlim_cur, 2048U);
}

class Crowds : public fault_row {
 protected:
  // Empty when the list is not answered in time, which a flood of new hosts can bring about.
  std::optional<std::size_t> listed() {
    scsiplugin::PluginClientList list;
    if (!local->plain().list_status(kPatience, &list).ok()) return std::nullopt;
    return static_cast<std::size_t>(list.list_size());
  }
  void unsubscribe(const std::string& prefix, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) local->plain().unsubscribe(prefix + std::to_string(i));
  }
};

TEST_F(Crowds, FiveThousandStreams) {
  constexpr std::size_t kStreams = 5000;
  constexpr std::size_t kConnections = 8;
  row("5,000 subscriptions over 8 connections, then all of them gone",
      "each is registered, and receives the announcement once; each holds a thread until it is "
      "unsubscribed; then threads and files are as before");
  start_daemon();
  EXPECT_TRUE(list_answers());  // this connection stays
  const std::size_t files = files_of(daemon->pid());
  const std::size_t subscription = record.subscribing();
  crowd hosts(&record, "host-", kStreams, kConnections);
  const double came = seconds_until(
      "5,000 subscriptions", [&] { return listed() == kStreams; }, seconds(120));
  record.listed(subscription);
  const std::size_t threads = threads_of(daemon->pid());
  EXPECT_GE(threads, kStreams);
  observed("subscribed in " + figure(came) + " s: " + std::to_string(threads) + " threads, " +
           figure(resident_mib(daemon->pid()), 0) + " MiB resident");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  seconds_until("every announcement", [&] { return hosts.received() == kStreams; });
  observed("hand-shake with all of them took " + figure(took.count(), 2) + " s");
  hosts.leave();
  const double left = seconds_until("an empty list", [&] { return listed() == 0U; });
  record.leaving(subscription);
  unsubscribe("host-", kStreams);
  const double ended = seconds_until(
      "the end of their threads", [&] { return threads_of(daemon->pid()) < 100; }, seconds(60));
  seconds_until("as many files as before", [&] { return files_of(daemon->pid()) <= files; });
  observed("unlisted " + figure(left) + " s after they had gone, threads back " + figure(ended) +
           " s after they were unsubscribed");
  witness_host host(&record, "esx", kTcpTarget);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(host.next());
}

TEST_F(Crowds, MoreConnectionsThanFiles) {
  constexpr std::size_t kHosts = 1100;
  row("1,100 hosts, each over a connection of its own, with the limit of 1,024 files",
      "those beyond the limit are turned away at once, and so are new connections to the unix "
      "socket; the others are served, LUN lookups included, for which a few files are kept; when "
      "hosts leave, all is served again");
  raise_own_file_limit();
  start_daemon();
  EXPECT_TRUE(list_answers());  // this connection stays
  const std::size_t subscription = record.subscribing();
  crowd hosts(&record, "host-", kHosts, kHosts);
  seconds_until(
      "an end for every host", [&] { return listed().value_or(0) + hosts.ended() == kHosts; },
      seconds(120));
  record.listed(subscription);
  const std::size_t served = listed().value_or(0);
  EXPECT_GT(hosts.ended(), 0U);
  EXPECT_LE(files_of(daemon->pid()), 1024U);
  EXPECT_GT(served, 950U);
  observed(std::to_string(served) + " served, " + std::to_string(hosts.ended()) + " turned away");
  scsiplugin::PluginClientList list;
  EXPECT_FALSE(caller(connect(kUnixTarget)).list_status(seconds(2), &list).ok());
  auto announced =
      std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, kLun); });
  seconds_until("the task", [&] { return local->says_yes(start_mirror, kLun); });
  EXPECT_TRUE(announced.get());
  EXPECT_TRUE(local->says_yes(mirror_done, kLun));
  EXPECT_TRUE(local->says_yes(is_mirror_done, kLun));
  seconds_until("every announcement", [&] { return hosts.received() == served; });
  observed("all of them received an announcement, is_mirror_done answered yes");
  hosts.leave();
  seconds_until("an empty list", [&] { return listed() == 0U; });
  record.leaving(subscription);
  unsubscribe("host-", kHosts);
  const auto begin = std::chrono::steady_clock::now();
  witness_host host(&record, "esx", kTcpTarget);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_TRUE(caller(connect(kUnixTarget)).list_status(seconds(10), &list).ok());
  EXPECT_TRUE(local->says_yes(depart_done, kLun));
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(host.next());
  observed("a new host was served " + figure(took.count(), 2) + " s after they had left");
}

}  // namespace
}  // namespace vexo::test

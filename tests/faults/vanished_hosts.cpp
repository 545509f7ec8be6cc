// Hosts that are gone, or seem to be.

#include <sys/socket.h>

#include <csignal>
#include <future>
#include <thread>

#include "fault_row.h"
#include "gauge.h"
#include "network.h"
#include "relay.h"

namespace vexo::test {
namespace {

using enum operation;

const std::string kAppliance = std::string(routed_network::kApplianceAddress) + ":3265";

class Vanished : public fault_row {
 protected:
  double seconds_until_unlisted(const std::string& plugin_id, seconds patience = kPatience) {
    return seconds_until(
        plugin_id + " is listed no longer", [&] { return !local->plain().is_listed(plugin_id); },
        patience);
  }
  void unsubscribe(const std::string& plugin_id) { local->plain().unsubscribe(plugin_id); }
};

TEST_F(Vanished, KilledAndRemoved) {
  row("host killed (SIGKILL), then unsubscribed as the guard does",
      "listed no longer; still registered until UnSubscribe; the next hand-shake succeeds");
  start_daemon();
  host_process host(&record, "esx", kTcpTarget);
  witness_host other(&record, "other", kTcpTarget);
  const std::size_t threads = threads_of(daemon->pid());
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_EQ(seconds_until("the announcement", [&] { return host.received() == 1; }) < 30, true);
  host.process().signal(SIGKILL);
  observed("unlisted after " + figure(seconds_until_unlisted("esx"), 2) + " s");
  EXPECT_EQ(log->count("Disconnect: Plugin ID=esx"), 0U);
  EXPECT_GE(threads_of(daemon->pid()) + 2, threads);
  host.leaving();
  unsubscribe("esx");
  EXPECT_TRUE(log->wait_for("Disconnect: Plugin ID=esx"));
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  observed("its call ended only with the UnSubscribe; next hand-shake succeeded");
  EXPECT_TRUE(other.next() && other.next());
}

TEST_F(Vanished, KilledAndMet) {
  row("host killed, and met by an announcement before anybody removes it",
      "the announcement never returns; lists and subscriptions hang, one core is busy; hand-shakes "
      "under way and LunOp go on; a restart mends it");
  start_daemon();
  host_process host(&record, "esx", kTcpTarget);
  auto waiting =
      std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, kReplicaLun); });
  EXPECT_TRUE(log->wait_for("push command to plugin_id=esx"));
  host.process().signal(SIGKILL);
  seconds_until_unlisted("esx");

  witness_caller hanging(&record, kUnixTarget);
  auto hung = std::async(std::launch::async, [&] { return hanging.ask(init_snapshot, kLun); });
  EXPECT_TRUE(log->wait_for("Disconnect: Plugin ID=esx"));
  EXPECT_FALSE(list_answers());
  const double cpu = cpu_seconds(daemon->pid());
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(local->says_yes(start_mirror, kReplicaLun));
  EXPECT_TRUE(waiting.get());
  local->set_lun(lun_kind::needs_no_mirror);
  EXPECT_TRUE(local->says_yes(is_mirror_done, kReplicaLun));
  EXPECT_TRUE(local->says_yes(depart_relation, kReplicaLun));
  EXPECT_TRUE(local->says_yes(wait_for_depart, kReplicaLun));
  EXPECT_TRUE(local->says_yes(depart_done, kReplicaLun));
  // Long after any wait of the contract's own is over it still hangs.
  EXPECT_EQ(hung.wait_for(seconds(65)), std::future_status::timeout);
  const double busy =
      (cpu_seconds(daemon->pid()) - cpu) /
      std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
  EXPECT_GT(busy, 0.1);  // of a core that others may want as well
  observed("hung for 65 s, list as well, using " + figure(busy, 2) +
           " of a core; the hand-shake under way was finished meanwhile");
  daemon->kill();
  EXPECT_EQ(hung.get(), answer::none);
  restart_daemon();
  witness_host back(&record, "esx", kTcpTarget);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(back.next());
  observed("after a restart the next hand-shake succeeded");
}

TEST_F(Vanished, KilledBeforeItsAnswer) {
  row("host killed between the announcement and its answer",
      "the announcement fails after 60 s and leaves no task; once the host is unsubscribed the "
      "next "
      "hand-shake succeeds");
  start_daemon();
  host_process host(&record, "esx", kTcpTarget);
  const auto begin = std::chrono::steady_clock::now();
  auto announced = std::async(std::launch::async, [&] { return local->ask(init_snapshot, kLun); });
  seconds_until("the announcement", [&] { return host.received() == 1; });
  host.process().signal(SIGKILL);
  EXPECT_EQ(announced.get(), answer::no);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(took.count(), 60);
  EXPECT_LT(took.count(), 65);
  observed("answered no after " + figure(took.count()) + " s");
  EXPECT_EQ(local->ask(start_mirror, kLun), answer::no);
  host.leaving();
  unsubscribe("esx");
  witness_host back(&record, "esx", kTcpTarget);
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(back.next());
  observed("next hand-shake succeeded");
}

TEST_F(Vanished, Stopped) {
  row("host stopped (SIGSTOP) for two hand-shakes, then continued",
      "stays listed and delays nobody; receives both announcements when it goes on, each once");
  start_daemon();
  host_process host(&record, "esx", kTcpTarget);
  witness_host other(&record, "other", kTcpTarget);
  host.process().signal(SIGSTOP);
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(other.next() && other.next());
  EXPECT_TRUE(local->plain().is_listed("esx"));
  EXPECT_EQ(host.received(), 0U);
  observed("listed, both hand-shakes succeeded");
  host.process().signal(SIGCONT);
  const double took = seconds_until("both announcements", [&] { return host.received() == 2; });
  observed("both announcements " + figure(took, 2) + " s after it went on");
}

TEST_F(Vanished, HalfClosed) {
  row("host closes its half of the connection and goes on reading (FIN without RST)",
      "counts as gone at once: listed no longer, its stream ends; still registered until "
      "UnSubscribe");
  start_daemon();
  relay between(3265);
  witness_host other(&record, "other", kTcpTarget);
  witness_host host(&record, "esx", between.target());
  between.shut_towards_server();
  observed("unlisted after " + figure(seconds_until_unlisted("esx"), 2) + " s");
  const auto end = host.stream().end();
  ASSERT_TRUE(end);
  EXPECT_EQ(end->error_code(), grpc::UNAVAILABLE) << end->error_message();
  EXPECT_EQ(log->count("Disconnect: Plugin ID=esx"), 0U);
  observed("its stream ended with UNAVAILABLE");
  witness_host back(&record, "esx", kTcpTarget);  // takes the old one's place
  EXPECT_TRUE(log->wait_for("Disconnect: Plugin ID=esx"));
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(back.next() && other.next());
  observed("subscribed again under its id, which removed the old one; next hand-shake succeeded");
}

TEST_F(Vanished, BlackHoledForAMoment) {
  row("router drops all packets to and from a host for 5 s, with an announcement meanwhile",
      "nobody is delayed; the host receives it when packets flow again, once");
  start_daemon();
  const routed_network network;
  host_process host(&record, "esx", kAppliance, routed_network::on_host());
  routed_network::forward(false);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(local->plain().is_listed("esx"));
  std::this_thread::sleep_until(begin + seconds(5));  // the length of the fault
  EXPECT_EQ(host.received(), 0U);
  routed_network::forward(true);
  observed("hand-shake succeeded meanwhile; announcement received " +
           figure(seconds_until("the announcement", [&] { return host.received() == 1; })) +
           " s after the end of the fault");
  EXPECT_TRUE(local->plain().is_listed("esx"));
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  seconds_until("the second announcement", [&] { return host.received() == 2; });
}

TEST_F(Vanished, BlackHoled) {
  row("router drops all packets to and from a host for good",
      "without traffic nothing is noticed; an announcement does not wait for the host, and within "
      "about 20 s after it the host is listed no longer; unsubscribed by then, it harms nobody");
  start_daemon();
  const routed_network network;
  host_process host(&record, "esx", kAppliance, routed_network::on_host());
  witness_host other(&record, "other", kTcpTarget);
  std::this_thread::sleep_for(seconds(2));  // until all that was sent is acknowledged
  routed_network::forward(false);
  std::this_thread::sleep_for(seconds(30));  // silence, longer than the transport's own limit
  EXPECT_TRUE(local->plain().is_listed("esx"));
  observed("still listed after 30 s of silence");
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(other.next());
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_LT(took.count(), 5);
  const double unlisted = seconds_until_unlisted("esx", seconds(60)) + took.count();
  EXPECT_LT(unlisted, 30);
  observed("hand-shake took " + figure(took.count(), 2) + " s; unlisted " + figure(unlisted) +
           " s after the announcement");
  host.leaving();
  unsubscribe("esx");
  EXPECT_TRUE(local->whole_hand_shake(kLun));
  EXPECT_TRUE(other.next());
  observed("unsubscribed; next hand-shake succeeded");
}

}  // namespace
}  // namespace vexo::test

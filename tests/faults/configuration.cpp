// The closed library that knows the LUNs.

#include <filesystem>
#include <fstream>
#include <future>
#include <vector>

#include "fault_row.h"

namespace vexo::test {
namespace {

using enum operation;
using scsiplugin::LUN_TYPE_80;

class Configuration : public fault_row {
 protected:
  static constexpr char kFault[] = "/tmp/conf_fault";

  void start() {
    daemon_options how;
    how.library_dir = FAULTY_LIBRARY_DIR;
    start_daemon(how);
  }
  static void set_fault(const std::string& what) {
    std::ofstream(std::string(kFault) + ".new") << what;
    std::filesystem::rename(std::string(kFault) + ".new", kFault);
  }
  static void mend() { std::filesystem::remove(kFault); }
};

TEST_F(Configuration, Failing) {
  row("configuration cannot be loaded, in the middle of a hand-shake",
      "is_lun_support and is_mirror_done answer no, each with a line of the failure; the other "
      "steps "
      "go on; when it loads again so do these");
  start();
  witness_host host(&record, "esx", kTcpTarget);
  auto announced =
      std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, kLun); });
  EXPECT_TRUE(host.next());
  set_fault("fail");
  EXPECT_TRUE(local->says_yes(start_mirror, kLun));
  EXPECT_TRUE(announced.get());
  EXPECT_TRUE(local->says_yes(mirror_done, kLun));
  local->set_lun(lun_kind::unreadable);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(local->ask(is_mirror_done, kLun), answer::no);
  EXPECT_FALSE(local->plain().lun_op(is_lun_support(kLun, LUN_TYPE_80)));
  EXPECT_EQ(log->count("GetLunConfByFunc Failed to get config"), 4U);
  EXPECT_EQ(log->count("Failed to get lun config ["), 3U);
  mend();
  local->set_lun(lun_kind::mirrored);
  EXPECT_TRUE(local->says_yes(is_mirror_done, kLun));
  EXPECT_TRUE(local->says_yes(depart_relation, kLun));
  EXPECT_TRUE(local->says_yes(wait_for_depart, kLun));
  EXPECT_TRUE(local->says_yes(depart_done, kLun));
  observed(
      "4 questions answered no with 4 lines \"Failed to get config\"; the hand-shake was finished "
      "after it loaded again");
}

TEST_F(Configuration, Slow) {
  row("one is_mirror_done waits in a load of the configuration that does not end",
      "start_mirror, depart_relation, is_mirror_done, the beginning of init_snapshot and the end "
      "of "
      "depart_done wait for it; mirror_done, wait_for_depart, lists and subscriptions do not");
  start();
  witness_host host(&record, "esx", kTcpTarget);
  for (const std::string key : {kLun, kReplicaLun}) {
    auto announced =
        std::async(std::launch::async, [&] { return local->says_yes(init_snapshot, key); });
    EXPECT_TRUE(host.next());
    EXPECT_TRUE(local->says_yes(start_mirror, key));
    EXPECT_TRUE(announced.get());
  }
  set_fault("hold");
  auto held = std::async(std::launch::async, [&] { return local->ask(is_mirror_done, kLun); });
  EXPECT_TRUE(log->wait_for("Check mirror done [" + std::string(kLun)));

  witness_caller other(&record, kUnixTarget);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(other.says_yes(mirror_done, kLun));
  EXPECT_TRUE(list_answers());
  auto waiting =
      std::async(std::launch::async, [&] { return other.says_yes(wait_for_depart, kLun); });
  witness_host second(&record, "second", kTcpTarget);
  second.unsubscribe();
  EXPECT_TRUE(second.stream().end());
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  EXPECT_LT(took.count(), 5);
  std::vector<std::future<answer>> blocked;
  const auto ask = [&](operation what, const std::string& key) {
    blocked.push_back(std::async(std::launch::async, [&, what, key] {
      return witness_caller(&record, kUnixTarget).ask(what, key);
    }));
  };
  ask(depart_relation, kLun);
  ask(start_mirror, kReplicaLun);
  ask(depart_done, kReplicaLun);
  ask(init_snapshot, "a third LUN");
  for (const auto& call : blocked) {
    EXPECT_EQ(call.wait_for(milliseconds(700)), std::future_status::timeout);
  }
  // A lookup for its own sake holds nothing, and waits only for itself.
  scsiplugin::LunCmdResp response;
  EXPECT_EQ(other.plain()
                .lun_op_status(is_lun_support(kLun, LUN_TYPE_80), milliseconds(500), &response)
                .error_code(),
            grpc::DEADLINE_EXCEEDED);
  observed("4 calls waited, the others took " + figure(took.count(), 2) + " s together");
  mend();
  EXPECT_EQ(held.get(), answer::yes);
  EXPECT_EQ(blocked[0].get(), answer::yes);
  EXPECT_TRUE(waiting.get());
  blocked[1].wait();  // one of the two comes first
  EXPECT_EQ(blocked[2].get(), answer::yes);
  seconds_until("the task", [&] { return other.says_yes(start_mirror, "a third LUN"); });
  EXPECT_EQ(blocked[3].get(), answer::yes);
  EXPECT_TRUE(other.says_yes(depart_done, kLun));
  observed("all of them were carried out when it ended");
  while (host.has_more()) host.next();
}

}  // namespace
}  // namespace vexo::test

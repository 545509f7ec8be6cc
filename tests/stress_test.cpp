// Many threads subscribe, replace, unsubscribe and cancel, while others push commands. The
// sanitizers find the faults.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <list>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "captured_syslog.h"
#include "fake_conf.h"
#include "service.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;

// Each phase lasts at least this long, and until each thread has made this many rounds.
constexpr std::chrono::seconds kDuration{3};
constexpr int kRounds = 40;
constexpr int kSubscriptions = 400;  // on each thread, at most

// What one thread works with. There are few ids and keys, so that threads often meet on one.
struct worker {
  // depart_done is pushed to the empty id.
  std::string id() { return std::vector<std::string>{"", "one", "two", "three"}[random() % 4]; }
  std::string key() { return std::vector<std::string>{"K0", "K1", "K2"}[random() % 3]; }

  std::minstd_rand random;
  caller call;
  int rounds = 0;
  std::list<subscriber> subscribed = {};
};

class stress : public service_host {
 public:
  // Runs `work` over and over on `count` threads, until the time is over.
  void on_threads(int count, const std::function<void(worker*)>& work) {
    for (int i = 0; i < count; ++i) {
      const auto seed = static_cast<unsigned>(workers_.size()) + 1;
      worker& mine = workers_.emplace_back(worker{std::minstd_rand(seed), caller(dial())});
      threads_.emplace_back([this, &mine, work] {
        for (; !over(mine.rounds); ++mine.rounds) work(&mine);
      });
    }
  }

  // Subscribes again and again. With `vanish`, older calls are cancelled. Without it the server
  // ends them: a broadcast must not meet a cancelled call.
  void subscribe_on_threads(int count, bool vanish) {
    on_threads(count, [this, vanish](worker* mine) {
      if (mine->rounds < kSubscriptions) mine->subscribed.emplace_back(dial(), mine->id());
      if (vanish && mine->subscribed.size() > 5) mine->subscribed.pop_front();
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    });
  }

  // Waits until the phase is over, gives up every call, and begins the next phase.
  void run() {
    for (auto& thread : threads_) thread.join();
    threads_.clear();
    for (const auto& each : workers_) EXPECT_GE(each.rounds, kRounds);
    workers_.clear();
    end_ = std::chrono::steady_clock::now() + kDuration;
    EXPECT_GT(captured_syslog().count(line(37, "one", "127.0.0.1", "Subscribe")), 2U);
    captured_syslog().clear();
  }

 private:
  bool over(int rounds) const {
    const auto now = std::chrono::steady_clock::now();
    return now > end_ && (rounds >= kRounds || now > end_ + 2 * kPatience);
  }

  std::chrono::steady_clock::time_point end_ = std::chrono::steady_clock::now() + kDuration;
  std::list<worker> workers_;
  std::vector<std::thread> threads_;
};

TEST(Stress, SubscribersAreReplacedAndVanishWhileCommandsArePushed) {
  // Never destroyed: a Subscribe call whose wake-up was lost stays open for ever, by contract, and
  // the server's destructor would wait for it. main ends the process without that destructor.
  static stress& s = *new stress;
  the_conf().set({{"K0", 0xF}, {"K1", 0x103}});

  // Broadcasts and whole handshakes, while subscribers are replaced and unsubscribed.
  const auto always_there = s.subscribe("always there");
  s.subscribe_on_threads(3, false);
  s.on_threads(2, [](worker* mine) {
    const std::string k = mine->key();
    if (stress::ctrl().add_task(k)) stress::ctrl().broadcast_cmd(init_snapshot(k));
    mine->call.publish(depart_done(k));
  });
  s.on_threads(2, [](worker* mine) {
    const std::string k = mine->key();
    mine->call.lun_op(start_mirror(k));
    mine->call.publish(mirror_done(k));
    mine->call.lun_op(is_mirror_done(k, LUN_TYPE_80));
    mine->call.lun_op(depart_relation(k));
  });
  s.on_threads(1, [](worker* mine) {
    mine->call.unsubscribe(mine->id());
    mine->call.list();
  });
  s.run();

  // Pushes to one subscriber, while subscribers vanish.
  s.subscribe_on_threads(3, true);
  s.on_threads(2, [](worker* mine) {
    const std::string k = mine->key();
    stress::ctrl().add_task(k);
    mine->call.publish(depart_done(k));
  });
  s.on_threads(2, [](worker* mine) {
    mine->call.list();
    mine->call.unsubscribe(mine->id());
  });
  s.run();
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  std::fflush(nullptr);
  syscall(SYS_exit_group, result);
}

// Subscribers that come, are replaced, unsubscribed and cancelled, while commands are pushed to
// them, from many threads at once. It is the sanitizers that watch.

#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
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

// Each phase lasts this long, and until there were this many rounds: fewer would be no stress.
constexpr std::chrono::seconds kDuration{3};
constexpr int kRounds = 200;
constexpr std::size_t kSubscriptions = 400;

class stress : public service_host {
 public:
  // Runs `work` over and over on `count` threads, each with a connection and a random source of its
  // own, until the time is over.
  template <typename Work>
  void on_threads(int count, Work work) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, i, work] {
        caller mine(dial());
        std::minstd_rand random(static_cast<unsigned>(i) + 1);
        while (!over()) {
          work(&mine, &random);
          ++rounds_;
        }
      });
    }
  }

  // Subscribes under one of few ids, for ever anew; older calls are cancelled if `vanish`, or else
  // left to the server to end, since a broadcast must not meet a cancelled one.
  void subscribe_on_threads(int count, bool vanish) {
    for (int i = 0; i < count; ++i) {
      threads_.emplace_back([this, i, vanish] {
        std::minstd_rand random(static_cast<unsigned>(i) + 100);
        std::list<subscriber> mine;
        for (std::size_t made = 0; made < kSubscriptions && !over(); ++made) {
          mine.emplace_back(dial(), id(&random));
          if (vanish && mine.size() > 5) mine.pop_front();
          std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
        const std::lock_guard lock(mutex_);
        left_.splice(left_.end(), mine);
      });
    }
  }

  // Waits until the time is over, lets go of every call, and starts the time anew.
  void run() {
    for (auto& thread : threads_) thread.join();
    threads_.clear();
    left_.clear();
    end_ = std::chrono::steady_clock::now() + kDuration;
    EXPECT_GE(rounds_.exchange(0), kRounds);
    EXPECT_GT(captured_syslog().count(line(37, "one", "127.0.0.1", "Subscribe")), 2U);
    captured_syslog().clear();
  }

  // One of these; the empty one is where depart_done is pushed to.
  static std::string id(std::minstd_rand* random) {
    return std::vector<std::string>{"", "one", "two", "three"}[(*random)() % 4];
  }
  static std::string key(std::minstd_rand* random) {
    return std::vector<std::string>{"K0", "K1", "K2"}[(*random)() % 3];
  }

 private:
  bool over() const {
    const auto now = std::chrono::steady_clock::now();
    return now > end_ && (rounds_ >= kRounds || now > end_ + 2 * kPatience);
  }

  std::chrono::steady_clock::time_point end_ = std::chrono::steady_clock::now() + kDuration;
  std::vector<std::thread> threads_;
  std::atomic<int> rounds_ = 0;
  std::mutex mutex_;
  std::list<subscriber> left_;
};

TEST(Stress, SubscribersAreReplacedAndVanishWhileCommandsArePushed) {
  // Never destroyed: a Subscribe call whose wake-up was lost stays open for ever, by contract, and
  // a server waits for its calls when it ends. The process ends without asking it, in main.
  static stress& s = *new stress;
  the_conf().set({{"K0", 0xF}, {"K1", 0x103}});

  // Broadcasts and whole hand-shakes, while subscribers are replaced and unsubscribed.
  const auto always_there = s.subscribe("always there");
  s.subscribe_on_threads(3, false);
  s.on_threads(2, [](caller* mine, std::minstd_rand* random) {
    const std::string k = stress::key(random);
    if (stress::ctrl().add_task(k)) stress::ctrl().broadcast_cmd(init_snapshot(k));
    mine->publish(depart_done(k));
  });
  s.on_threads(2, [](caller* mine, std::minstd_rand* random) {
    const std::string k = stress::key(random);
    mine->lun_op(start_mirror(k));
    mine->publish(mirror_done(k));
    mine->lun_op(is_mirror_done(k, LUN_TYPE_80));
    mine->lun_op(depart_relation(k));
  });
  s.on_threads(1, [](caller* mine, std::minstd_rand* random) {
    mine->unsubscribe(stress::id(random));
    mine->list();
  });
  s.run();

  // Pushes to one subscriber, while subscribers vanish.
  s.subscribe_on_threads(3, true);
  s.on_threads(2, [](caller* mine, std::minstd_rand* random) {
    const std::string k = stress::key(random);
    stress::ctrl().add_task(k);
    mine->publish(depart_done(k));
  });
  s.on_threads(2, [](caller* mine, std::minstd_rand* random) {
    mine->list();
    mine->unsubscribe(stress::id(random));
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

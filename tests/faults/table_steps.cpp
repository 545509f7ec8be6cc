#include "table_steps.h"

#include <algorithm>
#include <map>
#include <sstream>
#include <utility>

namespace vexo::test {

namespace {

using std::chrono::nanoseconds;
using std::chrono::seconds;

constexpr seconds kWait{60};
constexpr seconds kExpiry{300};

constexpr int kCreated = 0;
constexpr int kMirrorStarted = 2;
constexpr int kMirrorDone = 3;
constexpr int kDepartStarted = 4;

class stepper {
 public:
  stepper(const recorded_call& call, std::size_t index, const situation& from,
          const call_facts& facts)
      : call_(call), index_(index), from_(from), facts_(facts) {}

  std::vector<situation> next() {
    switch (call_.what) {
      case operation::init_snapshot:
        init_snapshot();
        break;
      case operation::mirror_done:
        mirror_done();
        break;
      case operation::wait_for_depart:
        wait_for_depart();
        break;
      case operation::depart_done:
        depart_done();
        break;
      case operation::start_mirror:
        move_on(kMirrorStarted);
        break;
      case operation::depart_relation:
        move_on(kDepartStarted);
        break;
      case operation::is_mirror_done:
        is_mirror_done();
        break;
    }
    return std::move(next_);
  }

 private:
  // The last step, if `verdict` is what the call was answered.
  void end(situation to, answer verdict) {
    if (call_.verdict != verdict && call_.verdict != answer::none) return;
    to.calls[index_] = {kDone, kNoTask};
    next_.push_back(std::move(to));
  }
  void go_on(situation to, int step, int bound) {
    to.calls[index_] = {step, bound};
    next_.push_back(std::move(to));
  }
  bool exists() const { return from_.current != kNoTask; }
  const task& current() const { return from_.tasks[static_cast<std::size_t>(from_.current)]; }
  const progress& mine() const { return from_.calls[index_]; }
  int bound_state() const { return from_.tasks[static_cast<std::size_t>(mine().bound)].state; }
  situation with_state(int which, int state) const {
    situation to = from_;
    to.tasks[static_cast<std::size_t>(which)].state = state;
    return to;
  }
  situation without_current() const {
    situation to = from_;
    to.current = kNoTask;
    return to;
  }
  bool open() const { return call_.verdict == answer::none; }
  bool may_have_waited_in_vain() const {
    return open() || call_.end.wall - call_.begin.wall >= kWait;
  }

  void init_snapshot() {
    constexpr int kBegun = 0;
    constexpr int kBroadcast = 1;
    constexpr int kWaiting = 2;
    constexpr int kGivingUp = 3;
    switch (mine().step) {
      case kBegun: {
        if (!facts_.announced && facts_.may_have_none) end(from_, answer::no);
        if (!facts_.may_have_hosts) return;
        const auto [first, last] =
            std::minmax({call_.begin.wall, open() ? nanoseconds::max() : call_.end.wall});
        if (exists() && !facts_.announced && (open() || first - current().created_last < kExpiry)) {
          end(from_, answer::no);
        }
        if (exists() && last - current().created_first < kExpiry) return;
        situation to = from_;
        to.current = static_cast<int>(to.tasks.size());
        to.tasks.push_back({kCreated, first, last});
        go_on(std::move(to), kBroadcast, kNoTask);
        return;
      }
      case kBroadcast:
        go_on(from_, exists() ? kWaiting : kGivingUp, from_.current);
        return;
      case kWaiting:
        if (bound_state() == kMirrorStarted) {
          end(from_, answer::yes);
        } else if (call_.verdict != answer::yes && may_have_waited_in_vain()) {
          go_on(from_, kGivingUp, kNoTask);
        }
        return;
      default:
        end(without_current(), answer::no);
    }
  }

  void mirror_done() {
    constexpr int kBegun = 0;
    constexpr int kLooking = 1;
    switch (mine().step) {
      case kBegun:
        if (exists()) {
          go_on(from_, kLooking, from_.current);
        } else {
          end(from_, answer::no);
        }
        return;
      case kLooking:
        if (bound_state() == kMirrorStarted) {
          go_on(from_, 2, mine().bound);
        } else {
          end(from_, answer::no);
        }
        return;
      default:
        end(with_state(mine().bound, kMirrorDone), answer::yes);
    }
  }

  void wait_for_depart() {
    if (mine().step == 0) {
      if (exists()) {
        go_on(from_, 1, from_.current);
      } else {
        end(from_, answer::no);
      }
    } else if (bound_state() == kDepartStarted) {
      end(from_, answer::yes);
    } else if (may_have_waited_in_vain()) {
      end(from_, answer::no);
    }
  }

  void depart_done() {
    if (mine().step == 0) {
      if (exists()) {
        go_on(from_, 1, kNoTask);
      } else if (!facts_.announced) {
        end(from_, answer::yes);
      }
    } else {
      end(without_current(), answer::yes);
    }
  }

  void move_on(int state) {
    if (exists()) {
      end(with_state(from_.current, state), answer::yes);
    } else {
      end(from_, answer::no);
    }
  }

  void is_mirror_done() {
    if (!exists() || call_.lun == lun_kind::unreadable) {
      end(from_, answer::no);
    } else if (call_.lun == lun_kind::needs_no_mirror) {
      end(with_state(from_.current, kMirrorDone), answer::yes);
    } else {
      end(from_, current().state == kMirrorDone ? answer::yes : answer::no);
    }
  }

  const recorded_call& call_;
  const std::size_t index_;
  const situation& from_;
  const call_facts& facts_;
  std::vector<situation> next_;
};

}  // namespace

std::string situation::fingerprint() const {
  std::ostringstream text;
  std::map<int, int> met;
  const auto put = [&](int index) {
    if (index == kNoTask) {
      text << '-';
      return;
    }
    const bool is_new = met.emplace(index, static_cast<int>(met.size())).second;
    text << met[index];
    if (!is_new) return;
    const task& it = tasks[static_cast<std::size_t>(index)];
    text << ':' << it.state << ':' << it.created_first.count();
  };
  put(current);
  // Calls come in the order of their begin, so few of those not done have taken a step.
  std::size_t touched = calls.size();
  while (touched > 0 && calls[touched - 1].step == 0) --touched;
  text << '|' << touched;
  for (std::size_t i = 0; i < touched; ++i) {
    if (calls[i].step == kDone) continue;
    text << '|' << i << ':' << calls[i].step << ':';
    put(calls[i].bound);
  }
  return text.str();
}

std::vector<situation> next_steps(const recorded_call& call, std::size_t index,
                                  const situation& from, const call_facts& facts) {
  return stepper(call, index, from, facts).next();
}

}  // namespace vexo::test

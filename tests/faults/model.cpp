#include "model.h"

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <unordered_set>
#include <utility>

#include "table_steps.h"

namespace vexo::test {

namespace {

using std::chrono::nanoseconds;

std::string text_of(const recorded_call& call) {
  constexpr std::size_t kShown = 40;
  std::ostringstream text;
  text << name_of(call.what) << " [" << call.key.substr(0, kShown) << "] from "
       << std::chrono::duration<double>(call.begin.at).count();
  if (call.verdict == answer::none) return text.str() + ", unanswered";
  text << " to " << std::chrono::duration<double>(call.end.at).count() << ", answered "
       << (call.verdict == answer::yes ? "yes" : "no");
  return text.str();
}

// Looks for an order of steps of all calls for one key. Calls fall into stretches between moments
// at which nothing is under way; what one stretch can lead to is where the next begins.
class order_search {
 public:
  order_search(std::vector<recorded_call> calls, const recorded_events& all)
      : calls_(std::move(calls)), all_(all) {
    std::sort(calls_.begin(), calls_.end(),
              [](const auto& a, const auto& b) { return a.begin.at < b.begin.at; });
    for (const auto& message : all.messages) announced_.insert(message.cmd_sn);
  }

  // Empty when there is one, else where it stops.
  std::string failure() {
    std::vector<situation> starts(1);
    for (std::size_t first = 0; first < calls_.size();) {
      std::size_t last = first;
      for (nanoseconds end{}; last < calls_.size(); ++last) {
        if (last > first && calls_[last].begin.at > end) break;
        end = std::max(end, end_of(calls_[last]));
      }
      starts = stretch(starts, first, last);
      if (starts.empty()) return unexplained_;
      first = last;
    }
    return {};
  }

 private:
  static nanoseconds end_of(const recorded_call& call) {
    return call.verdict == answer::none ? nanoseconds::max() : call.end.at;
  }

  std::vector<situation> stretch(const std::vector<situation>& starts, std::size_t first,
                                 std::size_t last) {
    const std::size_t count = last - first;
    std::vector<situation> open;
    for (const auto& start : starts) {
      situation begin;
      if (start.current != kNoTask) {
        begin.tasks = {start.tasks[static_cast<std::size_t>(start.current)]};
        begin.current = 0;
      }
      begin.calls.resize(count);
      open.push_back(std::move(begin));
    }
    std::unordered_set<std::string> seen;
    std::vector<situation> ends;
    std::size_t most_done = 0;
    while (!open.empty()) {
      const situation here = std::move(open.back());
      open.pop_back();
      if (!seen.insert(here.fingerprint()).second) continue;
      // No step may come before its call, nor after the answer of another that is still to do.
      nanoseconds until = nanoseconds::max();
      std::size_t done = 0;
      bool complete = true;
      for (std::size_t i = 0; i < count; ++i) {
        const recorded_call& call = calls_[first + i];
        if (here.calls[i].step == kDone) {
          ++done;
        } else if (call.verdict != answer::none) {
          until = std::min(until, call.end.at);
          complete = false;
        }
      }
      if (complete) ends.push_back(here);
      if (complete && last == calls_.size()) return ends;  // nobody goes on from any other
      if (done >= most_done) {
        most_done = done;
        note_unexplained(here, first);
      }
      for (std::size_t i = 0; i < count && calls_[first + i].begin.at <= until; ++i) {
        if (here.calls[i].step == kDone) continue;
        const recorded_call& call = calls_[first + i];
        const call_facts facts = {announced_.contains(call.cmd_sn), may_have_hosts(call),
                                  may_have_none(call)};
        for (auto& next : next_steps(call, i, here, facts)) {
          open.push_back(std::move(next));
        }
      }
    }
    return ends;
  }

  bool may_have_hosts(const recorded_call& call) const {
    return std::any_of(all_.subscriptions.begin(), all_.subscriptions.end(),
                       [&](const auto& host) { return host.begin.at <= end_of(call); });
  }
  bool may_have_none(const recorded_call& call) const {
    return std::none_of(all_.subscriptions.begin(), all_.subscriptions.end(), [&](const auto& it) {
      return it.listed && it.listed->at <= call.begin.at &&
             (!it.leaving || it.leaving->at >= end_of(call));
    });
  }

  void note_unexplained(const situation& at, std::size_t first) {
    unexplained_.clear();
    for (std::size_t i = 0; i < at.calls.size(); ++i) {
      if (at.calls[i].step == kDone || calls_[first + i].verdict == answer::none) continue;
      unexplained_ = "nothing explains " + text_of(calls_[first + i]);
      return;
    }
  }

  std::vector<recorded_call> calls_;
  const recorded_events& all_;
  std::set<std::uint32_t> announced_;
  std::string unexplained_;
};

void check_messages(const recorded_events& events, std::vector<std::string>* found) {
  std::map<std::uint32_t, const recorded_call*> causes;
  for (const auto& call : events.calls) {
    if (call.cmd_sn != 0) causes[call.cmd_sn] = &call;
  }
  std::set<std::pair<std::string, std::uint32_t>> delivered;
  for (const auto& message : events.messages) {
    const std::string text = std::string(name_of(message.what)) + " " +
                             std::to_string(message.cmd_sn) + " on " + message.stream;
    if (!delivered.emplace(message.stream, message.cmd_sn).second) {
      found->push_back("delivered twice: " + text);
    }
    const auto cause = causes.find(message.cmd_sn);
    if (cause == causes.end() || cause->second->what != message.what ||
        cause->second->key != message.key || cause->second->begin.at > message.at.at) {
      found->push_back("delivered without a cause: " + text);
    }
    if (message.what == operation::depart_done && !message.plugin_id.empty()) {
      found->push_back("delivered to the wrong host: " + text);
    }
  }
}

}  // namespace

std::vector<std::string> violations(const recorded_events& events) {
  std::vector<std::string> found;
  check_messages(events, &found);
  std::map<std::string, std::vector<recorded_call>> by_key;
  for (const auto& call : events.calls) {
    by_key[call.key].push_back(call);
    if (call.what == operation::init_snapshot && call.verdict == answer::yes &&
        call.answered_task_id != call.key) {
      found.push_back("answered with another task: " + text_of(call));
    }
  }
  for (auto& [key, calls] : by_key) {
    const std::string failure = order_search(std::move(calls), events).failure();
    if (!failure.empty()) found.push_back(failure);
  }
  return found;
}

}  // namespace vexo::test

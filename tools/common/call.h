#ifndef TOOLS_COMMON_CALL_H_
#define TOOLS_COMMON_CALL_H_

#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <deque>
#include <functional>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "common/channel.h"
#include "common/event.h"
#include "common/interrupt.h"

namespace vexo::tools {

struct call_options {
  std::chrono::milliseconds timeout = kCallTimeout;
  // A signal, even one from before the call, ends the call, but not earlier than this after its
  // start. If it equals `timeout`, no signal ends the call.
  std::chrono::milliseconds undisturbed = std::chrono::milliseconds::zero();
  // Keeps trying to connect until the deadline instead of failing when there is no connection.
  bool wait_for_ready = false;
  // Called now and then while the call is under way, with the time it has taken. Must not throw.
  std::function<void(std::chrono::milliseconds)> on_tick;
};

// How a call ended. After a signal `status` is that of the cancelled call. It is OK when the answer
// arrived in the same instant.
template <class Response>
struct outcome {
  grpc::Status status;
  Response response;
  bool interrupted = false;  // cancelled because of a signal
  bool abandoned = false;    // cancelled because another call failed
  std::chrono::duration<double> took{};

  // The daemon has answered, even if a signal came as well.
  bool answered() const { return status.ok(); }
};

namespace detail {

enum class progress { under_way, one_failed, all_ended };
enum class cause { signal, failure };

// Returns when `look`, which is asked again whenever `news` is raised, says that all calls have
// ended. Calls `cut_short` once at most: when a signal has come or a call has failed.
void wait_for_calls(event& news, interrupt& stop, const call_options& options,
                    const std::function<progress()>& look,
                    const std::function<void(cause)>& cut_short);

template <class Response>
struct call_under_way {
  grpc::ClientContext context;
  outcome<Response> result;
  std::atomic<bool> ended = false;  // then the thread writes no more to `result`
  std::jthread thread;
};

}  // namespace detail

template <class Request, class Response>
using service_method = grpc::Status (service_stub::*)(grpc::ClientContext*, const Request&,
                                                      Response*);

// Unary calls side by side, one for each request: `method` is a member of service_stub. Each call
// has a thread of its own, while this one watches for signals; returns when all have ended. When
// `is_failure` is true for a call that has ended, the others are cut short as by a signal. Throws
// std::system_error when a thread cannot be started; no call is under way then.
template <class Request, class Response>
std::vector<outcome<Response>> call_all(
    service_stub& stub, service_method<Request, Response> method,
    const std::vector<Request>& requests, interrupt& stop, const call_options& options = {},
    const std::function<bool(const outcome<Response>&)>& is_failure = {}) {
  using std::chrono::steady_clock;
  event news;
  enum { closed, open, given_up };
  std::atomic<int> gate = closed;  // no call begins before all have their threads
  const auto start = steady_clock::now();
  const auto run = [&](auto& call, const Request& request) {
    gate.wait(closed);
    if (gate == given_up) return;
    call.result.status = (stub.*method)(&call.context, request, &call.result.response);
    call.result.took = steady_clock::now() - start;
    call.ended = true;
    news.raise();
  };
  std::deque<detail::call_under_way<Response>> calls;  // its threads use all of the above
  try {
    for (const Request& request : requests) {
      auto& call = calls.emplace_back();
      set_timeout(call.context, options.timeout);
      call.context.set_wait_for_ready(options.wait_for_ready);
      call.thread = std::jthread([&run, &call, &request] { run(call, request); });
    }
  } catch (const std::system_error&) {
    gate = given_up;
    gate.notify_all();
    throw;
  }
  gate = open;
  gate.notify_all();
  const auto look = [&] {
    bool all_ended = true;
    bool one_failed = false;
    for (const auto& call : calls) {
      all_ended = all_ended && call.ended;
      one_failed = one_failed || (call.ended && is_failure && is_failure(call.result));
    }
    if (all_ended) return detail::progress::all_ended;
    return one_failed ? detail::progress::one_failed : detail::progress::under_way;
  };
  detail::wait_for_calls(news, stop, options, look, [&](detail::cause why) {
    for (auto& call : calls) {
      if (call.ended) continue;
      (why == detail::cause::signal ? call.result.interrupted : call.result.abandoned) = true;
      call.context.TryCancel();
    }
  });
  std::vector<outcome<Response>> results;
  for (auto& call : calls) {
    call.thread.join();
    results.push_back(std::move(call.result));
  }
  return results;
}

// One unary call.
template <class Request, class Response>
outcome<Response> call(service_stub& stub, service_method<Request, Response> method,
                       const Request& request, interrupt& stop, const call_options& options = {}) {
  return std::move(call_all<Request, Response>(stub, method, {request}, stop, options).front());
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_CALL_H_

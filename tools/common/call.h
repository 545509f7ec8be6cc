#ifndef TOOLS_COMMON_CALL_H_
#define TOOLS_COMMON_CALL_H_

#include <grpcpp/grpcpp.h>

#include <chrono>
#include <functional>
#include <thread>

#include "common/channel.h"
#include "common/event.h"
#include "common/interrupt.h"

namespace vexo::tools {

struct call_options {
  std::chrono::milliseconds timeout = kCallTimeout;
  // A signal, even one from before the call, ends the call, but not earlier than this after its
  // start. With the value of `timeout` no signal ends it.
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
  std::chrono::duration<double> took{};

  // The daemon has answered, even if a signal came as well.
  bool answered() const { return status.ok(); }
};

namespace detail {
// Waits until `done` is raised, which the call's thread does at its end. Cancels the call when a
// signal comes; true then.
bool wait_for_call(grpc::ClientContext& context, const event& done, interrupt& stop,
                   const call_options& options) noexcept;
}  // namespace detail

// One unary call: `method` is a member of service_stub. It has a thread of its own, while this one
// watches for signals; returns when it has ended. Throws std::system_error, before the call, when
// no thread can be started.
template <class Request, class Response>
outcome<Response> call(service_stub& stub,
                       grpc::Status (service_stub::*method)(grpc::ClientContext*, const Request&,
                                                            Response*),
                       const Request& request, interrupt& stop, const call_options& options = {}) {
  outcome<Response> result;
  event done;
  grpc::ClientContext context;
  set_timeout(context, options.timeout);
  context.set_wait_for_ready(options.wait_for_ready);
  const auto start = std::chrono::steady_clock::now();
  std::thread thread([&] {
    result.status = (stub.*method)(&context, request, &result.response);
    done.raise();
  });
  result.interrupted = detail::wait_for_call(context, done, stop, options);
  thread.join();
  result.took = std::chrono::steady_clock::now() - start;
  return result;
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_CALL_H_

#ifndef FUZZ_SIMULATION_H_
#define FUZZ_SIMULATION_H_

#include <grpcpp/server_context.h>

#include <chrono>
#include <exception>
#include <functional>
#include <string>
#include <utility>

// The clock that the daemon's code reads in a target, and the calls that it sees. In the daemon's
// objects the functions of simulation.cpp replace those that redirected_symbols.txt names.
namespace vexo::fuzz {

using time_point = std::chrono::system_clock::time_point;

// The daemon's clock and its timed waits. A minute costs nothing, what happens during a wait is the
// target's choice, and one thread is enough: while a handler waits, with its mutex free, the target
// may call any other.
struct virtual_time {
  time_point now{std::chrono::hours(24) * 365 * 50};
  // Called by each wait, with its deadline; the wait then looks again at what it waits for. False
  // when nothing more will happen: the wait then lasts to its end.
  std::function<bool(time_point)> meanwhile;
};

virtual_time& the_time();

// Thrown out of a broadcast that has met a vanished subscriber: by contract it examines that
// subscriber for ever, and a target has to go on.
struct never_returns : std::exception {};

// The context of a call that nobody made: its peer, and whether it was cancelled, are the target's
// choice. Every grpc::ServerContext that the daemon's code meets in a target must be one of these.
struct fake_call : grpc::ServerContext {
  explicit fake_call(std::string of) : from(std::move(of)) {}

  const std::string from;
  bool cancelled = false;
  // How often the daemon has seen the cancellation since a target set this to 0. A caller that has
  // seen it `enough` times would go on for ever, and gets a never_returns.
  int told = 0;
  static inline int enough = 3;  // set before all else
};

}  // namespace vexo::fuzz

#endif  // FUZZ_SIMULATION_H_

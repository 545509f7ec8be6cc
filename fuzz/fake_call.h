#ifndef FUZZ_FAKE_CALL_H_
#define FUZZ_FAKE_CALL_H_

#include <grpcpp/server_context.h>

#include <exception>
#include <string>
#include <utility>

namespace vexo::fuzz {

// Thrown out of a broadcast that has met a vanished subscriber: by contract it examines that one
// for ever, and a target has to go on.
struct never_returns : std::exception {};

// The context of a call that nobody made: its peer, and whether it was cancelled, are the target's
// choice. Every grpc::ServerContext that the daemon's code meets in a target must be one of these.
class fake_call : public grpc::ServerContext {
 public:
  explicit fake_call(std::string peer = "unix:") : peer_(std::move(peer)) {}

  void cancel() { cancelled_ = true; }
  bool cancelled() const { return cancelled_; }
  // How often the daemon has been told of the cancellation since this was last asked. Whoever is
  // told so `enough` times does not mean to stop asking, and gets a never_returns.
  int times_told() { return std::exchange(told_, 0); }
  static inline int enough = 3;  // set before all else

  const std::string& peer_seen() const { return peer_; }
  bool cancelled_seen();

 private:
  std::string peer_;
  bool cancelled_ = false;
  int told_ = 0;
};

}  // namespace vexo::fuzz

#endif  // FUZZ_FAKE_CALL_H_

#include "fake_call.h"

namespace vexo::fuzz {

bool fake_call::cancelled_seen() {
  if (cancelled_ && ++told_ == enough) throw never_returns();
  return cancelled_;
}

// In the daemon's objects these take the place of what seams.txt names.

std::string peer(const grpc::ServerContextBase* context) asm("fuzz_peer");
std::string peer(const grpc::ServerContextBase* context) {
  return static_cast<const fake_call*>(context)->peer_seen();
}

bool is_cancelled(grpc::ServerContextBase* context) asm("fuzz_is_cancelled");
bool is_cancelled(grpc::ServerContextBase* context) {
  return static_cast<fake_call*>(context)->cancelled_seen();
}

}  // namespace vexo::fuzz

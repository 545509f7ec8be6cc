#ifndef BENCH_LOAD_GRPC_SUBSCRIBERS_H_
#define BENCH_LOAD_GRPC_SUBSCRIBERS_H_

#include <memory>
#include <vector>

#include "grpc_connection.h"
#include "subscribers.h"

namespace vexo::bench {

// Returns when the server lists that many subscribers.
void wait_until_listed(int hosts, grpc_connection* local);

// Those of the daemon, or of the baseline.
class grpc_subscribers : public subscribers {
 public:
  grpc_subscribers(const server& at, int hosts);

  void announce() override;
  void answer() override;
  void finish() override;

  // Unsubscribes all of them, and waits until their calls have ended.
  void leave();

 private:
  std::vector<std::unique_ptr<grpc_connection>> hosts_;
  grpc_connection local_;
  int ended_ = 0;
};

}  // namespace vexo::bench

#endif  // BENCH_LOAD_GRPC_SUBSCRIBERS_H_

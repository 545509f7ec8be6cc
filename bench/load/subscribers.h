#ifndef BENCH_LOAD_SUBSCRIBERS_H_
#define BENCH_LOAD_SUBSCRIBERS_H_

#include <memory>

#include "server.h"

namespace vexo::bench {

// Hosts, each with a connection of its own to one server, and a local caller beside them.
class subscribers {
 public:
  virtual ~subscribers() = default;

  virtual void announce() = 0;  // sends one command for every host; `delivered` counts them
  virtual void answer() = 0;    // one host answers; `released` tells that the caller was told
  virtual void finish() = 0;    // makes ready for another announcement

  int delivered = 0;
  bool released = false;
};

// Returns when the server has all of them. They speak the server's protocol.
std::unique_ptr<subscribers> gather(const server& at, int hosts);

}  // namespace vexo::bench

#endif  // BENCH_LOAD_SUBSCRIBERS_H_

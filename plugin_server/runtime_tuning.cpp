#include "runtime_tuning.h"

#include <absl/synchronization/mutex.h>
#include <malloc.h>

namespace vexo::scsiplugin {

namespace {

// What two simultaneous lookups in 1024 LUNs need.
constexpr int kKeptFreeBytes = 16 << 20;

}  // namespace

void tune_runtime() {
  // NOLINTBEGIN(concurrency-mt-unsafe): no other thread exists yet.
  // One heap. With a heap for each thread, reconnecting hosts leave unused memory in all of them.
  mallopt(M_ARENA_MAX, 1);
  // A LUN lookup takes and frees megabytes; giving them back to the kernel costs more than using
  // them.
  mallopt(M_TRIM_THRESHOLD, kKeptFreeBytes);
  // NOLINTEND(concurrency-mt-unsafe)

  // Debian's build of abseil, whose locks gRPC uses, looks for deadlocks at every lock operation,
  // and takes one global lock for that.
  absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
}

}  // namespace vexo::scsiplugin

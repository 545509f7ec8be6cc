#include "runtime_tuning.h"

#include <absl/synchronization/mutex.h>
#include <malloc.h>

namespace vexo::scsiplugin {

namespace {

// Two LUN lookups of 1024 LUNs at once.
constexpr int kKeptFreeBytes = 16 << 20;

}  // namespace

void tune_runtime() {
  // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread yet.
  // One heap: with one for each thread, hosts that reconnect leave memory behind in all of them.
  mallopt(M_ARENA_MAX, 1);
  // A LUN lookup takes and frees megabytes; giving them back to the kernel costs more than using
  // them.
  mallopt(M_TRIM_THRESHOLD, kKeptFreeBytes);
  // NOLINTEND(concurrency-mt-unsafe)

  // Debian's build of the locks inside gRPC looks for deadlocks at every lock, under a lock of its
  // own.
  absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
}

}  // namespace vexo::scsiplugin

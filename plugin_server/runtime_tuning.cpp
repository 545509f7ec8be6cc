#include "runtime_tuning.h"

#include <absl/synchronization/mutex.h>
#include <malloc.h>
#include <pthread.h>

#include <cstddef>

namespace vexo::scsiplugin {

namespace {

// Two LUN lookups of 1024 LUNs at once.
constexpr int kKeptFreeBytes = 16 << 20;

// Ten times what the deepest call needs (gRPC's own, with 64 KiB identifiers and the stand-in for
// the appliance's library, which runs on these threads too).
[[maybe_unused]] constexpr std::size_t kThreadStackBytes = 256 << 10;

}  // namespace

void tune_runtime() {
  // NOLINTBEGIN(concurrency-mt-unsafe): there is one thread yet.
  // One heap: with one for each thread, hosts that reconnect leave memory behind in all of them.
  mallopt(M_ARENA_MAX, 1);
  // A LUN lookup takes and frees megabytes; giving them back to the kernel costs more than using
  // them.
  mallopt(M_TRIM_THRESHOLD, kKeptFreeBytes);
  // NOLINTEND(concurrency-mt-unsafe)

  // Each subscriber holds a thread; by default a thread reserves 8 MiB of addresses.
#ifndef __SANITIZE_THREAD__  // keeps more than that in each stack
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kThreadStackBytes);
  pthread_setattr_default_np(&attributes);
  pthread_attr_destroy(&attributes);
#endif

  // Debian's build of the locks inside gRPC looks for deadlocks at every lock, under a lock of its
  // own.
  absl::SetMutexDeadlockDetectionMode(absl::OnDeadlockCycle::kIgnore);
}

}  // namespace vexo::scsiplugin

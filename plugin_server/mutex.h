#ifndef PLUGIN_SERVER_MUTEX_H_
#define PLUGIN_SERVER_MUTEX_H_

#include <mutex>

// Annotations for clang's -Wthread-safety; empty for other compilers. The names have a prefix
// because gRPC's headers define those without one.
#ifdef __clang__
#define PLUGIN_TS(attribute) __attribute__((attribute))
#else
#define PLUGIN_TS(attribute)
#endif
#define PLUGIN_CAPABILITY PLUGIN_TS(capability("mutex"))
#define PLUGIN_SCOPED_CAPABILITY PLUGIN_TS(scoped_lockable)
#define PLUGIN_GUARDED_BY(m) PLUGIN_TS(guarded_by(m))
#define PLUGIN_PT_GUARDED_BY(m) PLUGIN_TS(pt_guarded_by(m))
#define PLUGIN_REQUIRES(m) PLUGIN_TS(requires_capability(m))
#define PLUGIN_EXCLUDES(...) PLUGIN_TS(locks_excluded(__VA_ARGS__))
#define PLUGIN_ACQUIRE(...) PLUGIN_TS(acquire_capability(__VA_ARGS__))
#define PLUGIN_RELEASE(...) PLUGIN_TS(release_capability(__VA_ARGS__))
#define PLUGIN_TRY_ACQUIRE(...) PLUGIN_TS(try_acquire_capability(__VA_ARGS__))

namespace vexo::scsiplugin {

// A std::mutex that the analysis knows.
class PLUGIN_CAPABILITY mutex : public std::mutex {
 public:
  void lock() PLUGIN_ACQUIRE() { std::mutex::lock(); }
  void unlock() PLUGIN_RELEASE() { std::mutex::unlock(); }
  bool try_lock() PLUGIN_TRY_ACQUIRE(true) { return std::mutex::try_lock(); }
};

// Holds a mutex for a scope. A std::unique_lock, so that a condition variable can wait with it.
class PLUGIN_SCOPED_CAPABILITY mutex_lock : public std::unique_lock<std::mutex> {
 public:
  // Qualified: std::unique_lock has a member called mutex.
  explicit mutex_lock(scsiplugin::mutex& m) PLUGIN_ACQUIRE(m) : std::unique_lock<std::mutex>(m) {}
  ~mutex_lock() PLUGIN_RELEASE() = default;
};

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_MUTEX_H_

#ifndef PLUGIN_SERVER_RECORD_MAP_H_
#define PLUGIN_SERVER_RECORD_MAP_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <utility>

namespace vexo::scsiplugin {

// A table of shared records that can be read without its registry lock. The registry lock
// (`client_mutex`, `task_mutex`) makes a whole operation atomic and is held during all of it. The
// lock of this class is held only inside each call. So a reader that takes no registry lock is
// never blocked by a long operation and never sees a half-changed table.
//
// Every writer holds the registry lock. Any thread may call the readers.
template <typename Record>
class record_map {
 public:
  using pointer = std::shared_ptr<Record>;
  using table = std::unordered_map<std::string, pointer>;

  // The record under `key`, or an empty pointer.
  pointer find(const std::string& key) const {
    const std::shared_lock lock(mutex_);
    const auto entry = table_.find(key);
    return entry == table_.end() ? pointer() : entry->second;
  }

  bool empty() const {
    const std::shared_lock lock(mutex_);
    return table_.empty();
  }

  // Stores `record` under `key`. Returns the record that it replaces, or an empty pointer.
  pointer put(const std::string& key, pointer record) {
    const std::unique_lock lock(mutex_);
    return std::exchange(table_[key], std::move(record));
  }

  // The number of records removed, 0 or 1. The record is let go after unlocking.
  std::size_t erase(const std::string& key) {
    std::unique_lock lock(mutex_);
    const auto removed = table_.extract(key);
    lock.unlock();
    return removed.empty() ? 0 : 1;
  }

  // For iteration, in hash order. The caller holds the registry lock, which keeps every writer out,
  // so no lock is taken here and other readers are not blocked.
  typename table::const_iterator begin() const { return table_.begin(); }
  typename table::const_iterator end() const { return table_.end(); }

 private:
  mutable std::shared_mutex mutex_;
  table table_ = table(10);  // bucket hint
};

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_RECORD_MAP_H_

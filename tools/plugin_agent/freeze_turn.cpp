#include "plugin_agent/freeze_turn.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace vexo::tools {

namespace {

// One line each: "fs MAJOR:MINOR PATH" and "hook PATH".
constexpr char kFileSystem[] = "fs";
constexpr char kHook[] = "hook";

std::string record_path(const std::string& directory) { return directory + "/frozen"; }

std::string text_of(const freeze_record& record) {
  std::ostringstream text;
  for (const auto& [mount_point, device] : record.file_systems) {
    text << kFileSystem << ' ' << major(device) << ':' << minor(device) << ' ' << mount_point
         << '\n';
  }
  for (const auto& hook : record.hooks) text << kHook << ' ' << hook << '\n';
  return text.str();
}

freeze_record parse(std::istream& text) {
  freeze_record record;
  std::string line;
  while (std::getline(text, line)) {
    std::istringstream words(line);
    std::string kind;
    unsigned device_major = 0;
    unsigned device_minor = 0;
    char colon = 0;
    std::string path;
    words >> kind;
    if (kind == kFileSystem) words >> device_major >> colon >> device_minor;
    if (!std::getline(words >> std::ws, path)) continue;
    if (kind == kFileSystem) {
      record.file_systems.push_back({path, makedev(device_major, device_minor)});
    } else if (kind == kHook) {
      record.hooks.push_back(path);
    }
  }
  return record;
}

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void sync_path(const std::string& path) {
  const unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || fsync(file.get()) != 0) fail(path);
}

}  // namespace

void make_run_directory(const std::string& directory) {
  std::error_code error;
  std::filesystem::create_directories(directory, error);
  if (error || access(directory.c_str(), W_OK) != 0) {
    throw std::runtime_error(
        "the directory " + directory + " cannot be used: " +
        (error ? error : std::error_code(errno, std::generic_category())).message() +
        "; run as root, or name another one with --run-dir");
  }
}

freeze_turn::freeze_turn(std::string directory, unique_fd lock)
    : directory_(std::move(directory)), lock_(std::move(lock)) {}

std::optional<freeze_turn> freeze_turn::try_take(const std::string& directory) {
  make_run_directory(directory);
  const std::string path = directory + "/lock";
  unique_fd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock) fail(path);
  if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) return std::nullopt;
    fail(path);
  }
  return freeze_turn(directory, std::move(lock));
}

void freeze_turn::write(const freeze_record& record) const {
  const std::string path = record_path(directory_);
  const std::string incomplete = path + ".new";
  {
    std::ofstream file(incomplete, std::ios::trunc);
    file << text_of(record);
    file.close();
    if (!file) fail(incomplete);
  }
  sync_path(incomplete);
  if (rename(incomplete.c_str(), path.c_str()) != 0) fail(path);
  sync_path(directory_);
}

void freeze_turn::remove_record() const { remove_freeze_record(directory_); }

std::optional<freeze_record> read_freeze_record(const std::string& directory) {
  std::ifstream file(record_path(directory));
  if (!file) return std::nullopt;
  return parse(file);
}

void remove_freeze_record(const std::string& directory) { unlink(record_path(directory).c_str()); }

}  // namespace vexo::tools

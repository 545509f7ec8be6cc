#include "plugin_freezer/run_directory.h"

#include <fcntl.h>
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "plugin_freezer/monotonic_ms.h"

namespace vexo::tools {

namespace {

constexpr char kRecord[] = "frozen";
constexpr char kPause[] = "pause";

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

void sync_path(const std::string& path) {
  const unique_fd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file || fsync(file.get()) != 0) fail(path);
}

struct flock whole_file() {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  return lock;
}

// Without a collector the parser prints its errors to stderr.
class error_ignorer : public google::protobuf::io::ErrorCollector {
  void AddError(int /*line*/, int /*column*/, const std::string& /*message*/) override {}
};

// False when not all of it could be read.
bool read_message(const std::string& path, google::protobuf::Message& content) {
  std::ifstream file(path);
  const std::string text((std::istreambuf_iterator<char>(file)), {});
  error_ignorer errors;
  google::protobuf::TextFormat::Parser parser;
  parser.RecordErrorsTo(&errors);
  parser.AllowUnknownField(true);
  return parser.ParseFromString(text, &content);
}

}  // namespace

void make_run_directory(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (error || access(path.c_str(), W_OK) != 0) {
    throw std::runtime_error(
        "the directory " + path + " cannot be used: " +
        (error ? error : std::error_code(errno, std::generic_category())).message() +
        "; run as root, or name another one with --run-dir");
  }
}

std::string boot_id() {
  std::string id;
  std::ifstream("/proc/sys/kernel/random/boot_id") >> id;
  return id;
}

bool is_of_this_boot(const std::string& id, const std::string& directory) {
  struct statfs facts = {};
  if (statfs(directory.c_str(), &facts) == 0 && facts.f_type == TMPFS_MAGIC) return true;
  const std::string now = boot_id();
  return id.empty() || now.empty() || id == now;
}

run_directory::run_directory(std::string path) : path_(std::move(path)) {
  make_run_directory(path_);
  const std::string lock = path_ + "/lock";
  lock_ = unique_fd(open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock_) fail(lock);
}

bool run_directory::try_lock() {
  auto lock = whole_file();
  if (fcntl(lock_.get(), F_SETLK, &lock) == 0) return true;
  if (errno != EAGAIN && errno != EACCES) fail(path_ + "/lock");
  return false;
}

void run_directory::unlock() {
  auto lock = whole_file();
  lock.l_type = F_UNLCK;
  fcntl(lock_.get(), F_SETLK, &lock);
}

pid_t run_directory::lock_holder() const {
  auto lock = whole_file();
  if (fcntl(lock_.get(), F_GETLK, &lock) != 0 || lock.l_type == F_UNLCK) return 0;
  return lock.l_pid;
}

std::optional<RestRecord> run_directory::record(bool* damaged) const {
  const std::string path = path_ + "/" + kRecord;
  if (access(path.c_str(), F_OK) != 0) return std::nullopt;
  RestRecord record;
  const bool whole = read_message(path, record);
  if (damaged != nullptr) *damaged = !whole;
  return record;
}

void run_directory::write_record(const RestRecord& record) const { write_file(kRecord, record); }

void run_directory::remove_record() const { unlink((path_ + "/" + kRecord).c_str()); }

std::chrono::steady_clock::time_point run_directory::not_before() const {
  RestRecord pause;
  read_message(path_ + "/" + kPause, pause);
  return is_of_this_boot(pause.boot_id(), path_) ? from_ms(pause.until())
                                                 : std::chrono::steady_clock::time_point();
}

void run_directory::set_not_before(std::chrono::steady_clock::time_point time) const {
  RestRecord pause;
  pause.set_boot_id(boot_id());
  pause.set_until(to_ms(time));
  write_file(kPause, pause);
}

void run_directory::write_file(const std::string& name,
                               const google::protobuf::Message& content) const {
  const std::string path = path_ + "/" + name;
  const std::string incomplete = path + ".new";
  {
    std::string text;
    google::protobuf::TextFormat::PrintToString(content, &text);
    std::ofstream file(incomplete, std::ios::trunc);
    file << text;
    file.close();
    if (!file) fail(incomplete);
  }
  sync_path(incomplete);
  if (rename(incomplete.c_str(), path.c_str()) != 0) fail(path);
  sync_path(path_);
}

}  // namespace vexo::tools

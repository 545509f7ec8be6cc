#include "common/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <system_error>

#include "common/unique_fd.h"

namespace vexo::tools {

namespace {

[[noreturn]] void remove_and_fail(const std::string& path, int error) {
  unlink(path.c_str());
  throw std::system_error(error, std::generic_category(), path);
}

}  // namespace

std::string read_file(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) throw std::system_error(errno, std::generic_category(), path);
  return {std::istreambuf_iterator<char>(file), {}};  // throws std::ios_base::failure
}

void replace_file(const std::string& path, std::string_view content) {
  constexpr mode_t kReadableByAll = 0644;  // whatever the umask is
  const std::string temporary = path + ".tmp";
  unlink(temporary.c_str());  // left by a program that was killed while it wrote
  const unique_fd file(
      open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kReadableByAll));
  if (!file) throw std::system_error(errno, std::generic_category(), temporary);
  if (fchmod(file.get(), kReadableByAll) != 0) remove_and_fail(temporary, errno);
  const ssize_t size = write(file.get(), content.data(), content.size());
  if (size < 0) remove_and_fail(temporary, errno);
  if (static_cast<std::size_t>(size) != content.size()) remove_and_fail(temporary, ENOSPC);
  if (std::rename(temporary.c_str(), path.c_str()) != 0) remove_and_fail(temporary, errno);
}

}  // namespace vexo::tools

#ifndef TOOLS_COMMON_STANDARD_FDS_H_
#define TOOLS_COMMON_STANDARD_FDS_H_

#include <fcntl.h>
#include <unistd.h>

namespace vexo::tools {

// Opens /dev/null for each of stdin, stdout and stderr that this program's caller has closed
// ("2>&-"). Otherwise the next connection would get its number, and messages would go there.
// Writing to a stdout that was closed still fails. Called first in main.
inline void open_closed_standard_fds() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(fd, F_GETFD) >= 0) continue;
    // Gets the lowest free number, which is `fd`.
    [[maybe_unused]] const int opened = open("/dev/null", fd == STDERR_FILENO ? O_RDWR : O_RDONLY);
  }
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_STANDARD_FDS_H_

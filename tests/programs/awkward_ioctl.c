// Loaded ahead of the C library: FITHAW does not begin while there is a file /tmp/no_thaw.

#include <linux/fs.h>
#include <stdarg.h>
#include <sys/syscall.h>
#include <unistd.h>

int ioctl(int fd, unsigned long request, ...) {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  while (request == FITHAW && access("/tmp/no_thaw", F_OK) == 0) usleep(1000);
  return (int)syscall(SYS_ioctl, fd, request, argument);
}

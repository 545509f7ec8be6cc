// Loaded ahead of the C library. As the file /tmp/ioctl_does says:
//   freeze   the first process that makes FIFREEZE is killed when it is done
//   thaw     FITHAW does not begin for as long as the file says so

#include <linux/fs.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static int told_to(const char* what) {
  char text[8] = "";
  FILE* file = fopen("/tmp/ioctl_does", "re");
  if (file == NULL) return 0;
  if (fscanf(file, "%7s", text) != 1) text[0] = '\0';
  fclose(file);
  return strcmp(text, what) == 0;
}

int ioctl(int fd, unsigned long request, ...) {
  va_list more;
  va_start(more, request);
  void* const argument = va_arg(more, void*);
  va_end(more);
  while (request == FITHAW && told_to("thaw")) usleep(1000);
  const int result = (int)syscall(SYS_ioctl, fd, request, argument);
  if (request == FIFREEZE && told_to("freeze")) {
    unlink("/tmp/ioctl_does");
    raise(SIGKILL);
  }
  return result;
}

// Preloaded into the daemon by scripts/run: has the C library write each syslog message to stderr
// as well, also where no syslog daemon runs. The daemon itself never calls openlog.

#include <stddef.h>
#include <syslog.h>

__attribute__((constructor)) static void log_to_terminal(void) {
  openlog(NULL, LOG_PERROR, LOG_USER);
}

// Loads the inventory as the daemon does, for scripts/run. What is wrong with it is written to
// stderr.

#include <stddef.h>
#include <syslog.h>

#include "vexo_iscsi_ep.h"

int main(void) {
  openlog("scripts/run", LOG_PERROR, LOG_USER);
  struct load_request request = {0};
  struct conf_holder holder = {.luns = {&holder.luns, &holder.luns},
                               .second = {&holder.second, &holder.second},
                               .third = {&holder.third, &holder.third}};
  const int failed = VEXOiSCSIConfGet(&request, &holder, &holder.third, &holder.second);
  VEXOiSCSIConfFree(&holder);
  return failed != 0;
}

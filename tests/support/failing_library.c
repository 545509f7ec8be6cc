// A libvexoiscsiep.so.6 that can load nothing.

#include "vexo_iscsi_ep.h"

int VEXOiSCSIConfGet(struct load_request* request, struct conf_holder* holder,
                     struct list_head* third, struct list_head* second) {
  (void)request, (void)holder, (void)third, (void)second;
  return 1;
}

void VEXOiSCSIConfFree(struct conf_holder* holder) { (void)holder; }

// A libvexoiscsiep.so.6 that knows one LUN, and does as the file /tmp/conf_fault says: "fail" and
// nothing can be loaded, "hold" and a load waits for as long as the file says so.

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vexo_iscsi_ep.h"

static int fault_is(const char* what) {
  char text[8] = "";
  FILE* file = fopen("/tmp/conf_fault", "r");
  if (file == NULL) return 0;
  if (fgets(text, sizeof text, file) == NULL) text[0] = '\0';
  fclose(file);
  return strcmp(text, what) == 0;
}

int VEXOiSCSIConfGet(struct load_request* request, struct conf_holder* holder,
                     struct list_head* third, struct list_head* second) {
  (void)request, (void)third, (void)second;
  while (fault_is("hold")) usleep(10 * 1000);
  if (fault_is("fail")) return 1;
  struct tag_iscsi_lun_* lun = calloc(1, sizeof *lun);
  if (lun == NULL) return 1;
  strcpy(lun->identifier, "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6");
  lun->type_flags = 0xF;
  lun->link.next = lun->link.prev = &holder->luns;
  holder->luns.next = holder->luns.prev = &lun->link;
  return 0;
}

void VEXOiSCSIConfFree(struct conf_holder* holder) {
  struct list_head* link = holder->luns.next;
  if (link == NULL || link == &holder->luns) return;
  free((char*)link - offsetof(struct tag_iscsi_lun_, link));
  holder->luns.next = holder->luns.prev = &holder->luns;
}

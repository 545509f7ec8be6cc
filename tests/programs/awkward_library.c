// A libvexoiscsiep.so.6 that knows one LUN, and is what a closed library may be: it has much
// thread-local data, and at each load does as the file /tmp/library_does says:
//   fail           nothing can be loaded
//   stack BYTES    uses so much stack
//   thread BYTES   uses it on a thread of its own, with default attributes
//   exit           calls exit(3) on a thread of its own, and waits for as long as the file says so

#include <alloca.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vexo_iscsi_ep.h"

static _Thread_local volatile char g_thread_local[256 << 10];

struct order {
  char what[8];
  size_t bytes;
};

static struct order read_order(void) {
  struct order order = {"", 0};
  FILE* file = fopen("/tmp/library_does", "re");
  if (file == NULL) return order;
  if (fscanf(file, "%7s %zu", order.what, &order.bytes) < 1) order.what[0] = '\0';
  fclose(file);
  return order;
}

static void* use_stack(void* bytes) {
  const size_t size = *(const size_t*)bytes;
  volatile char* const room = alloca(size);
  for (size_t i = 0; i < size; i += 1024) room[i] = 1;
  return NULL;
}

static void* leave(void* unused) {
  (void)unused;
  exit(3);
}

int VEXOiSCSIConfGet(struct load_request* request, struct conf_holder* holder,
                     struct list_head* third, struct list_head* second) {
  (void)request, (void)third, (void)second;
  struct order order = read_order();
  pthread_t thread;
  for (size_t i = 0; i < sizeof g_thread_local; i += 1024) g_thread_local[i] = 1;
  if (strcmp(order.what, "fail") == 0) return 1;
  if (strcmp(order.what, "stack") == 0) use_stack(&order.bytes);
  if (strcmp(order.what, "thread") == 0) {
    if (pthread_create(&thread, NULL, use_stack, &order.bytes) != 0) return 1;
    pthread_join(thread, NULL);
  }
  if (strcmp(order.what, "exit") == 0) {
    if (pthread_create(&thread, NULL, leave, NULL) != 0) return 1;
    pthread_detach(thread);
    while (strcmp(read_order().what, "exit") == 0) usleep(1000);
  }
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

// A libvexoiscsiep.so.6 that knows one LUN, and is what a closed library may be: it has much
// thread-local data, and at each load does as the file /tmp/library_does says:
//   fail     nothing can be loaded
//   stack    uses 4 MiB of it
//   thread   the same on a thread of its own, with default attributes
//   exit     calls exit(3) on a thread of its own, and waits for as long as the file says so

#include <alloca.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "vexo_iscsi_ep.h"

static _Thread_local volatile char g_thread_local[256 << 10];
static _Thread_local struct tag_iscsi_lun_ g_lun;  // of one load at a time

static int told_to(const char* what) {
  char text[8] = "";
  FILE* file = fopen("/tmp/library_does", "re");
  if (file == NULL) return 0;
  if (fscanf(file, "%7s", text) != 1) text[0] = '\0';
  fclose(file);
  return strcmp(text, what) == 0;
}

// Half of the platform's default.
static void* use_stack(void* unused) {
  (void)unused;
  volatile char* const room = alloca(4 << 20);
  for (size_t i = 0; i < 4 << 20; i += 1024) room[i] = 1;
  return NULL;
}

static void* leave(void* unused) {
  (void)unused;
  exit(3);
}

int VEXOiSCSIConfGet(struct load_request* request, struct conf_holder* holder,
                     struct list_head* third, struct list_head* second) {
  (void)request, (void)third, (void)second;
  pthread_t thread;
  for (size_t i = 0; i < sizeof g_thread_local; i += 1024) g_thread_local[i] = 1;
  if (told_to("fail")) return 1;
  if (told_to("stack")) use_stack(NULL);
  if (told_to("thread")) {
    if (pthread_create(&thread, NULL, use_stack, NULL) != 0) return 1;
    pthread_join(thread, NULL);
  }
  if (told_to("exit")) {
    if (pthread_create(&thread, NULL, leave, NULL) != 0) return 1;
    pthread_detach(thread);
    while (told_to("exit")) usleep(1000);
  }
  strcpy(g_lun.identifier, "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6");
  g_lun.type_flags = 0xF;
  g_lun.link.next = g_lun.link.prev = &holder->luns;
  holder->luns.next = holder->luns.prev = &g_lun.link;
  return 0;
}

void VEXOiSCSIConfFree(struct conf_holder* holder) { (void)holder; }

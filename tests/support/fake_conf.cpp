#include "fake_conf.h"

#include <gtest/gtest.h>

#include <cstring>

namespace vexo::test {

namespace {
template <std::size_t size>
void expect_zeroed(const std::uint8_t (&bytes)[size]) {
  for (const auto byte : bytes) EXPECT_EQ(byte, 0);
}
}  // namespace

fake_conf& the_conf() {
  static fake_conf conf;
  return conf;
}

void fake_conf::reset() {
  set({});
  in_next_load(nullptr);
  fails = false;
  loads = frees = records_alive = 0;
}

void fake_conf::set(luns inventory) {
  const std::lock_guard lock(mutex_);
  luns_ = std::move(inventory);
}

void fake_conf::in_next_load(std::function<void()> interruption) {
  const std::lock_guard lock(mutex_);
  interruption_ = std::move(interruption);
}

int fake_conf::get(const load_request* request, conf_holder* holder, const list_head* third,
                   const list_head* second) {
  EXPECT_EQ(request->what, 0x7000U);
  expect_zeroed(request->opaque);
  expect_zeroed(holder->opaque);
  EXPECT_EQ(third, &holder->third);
  EXPECT_EQ(second, &holder->second);
  for (const auto* head : {&holder->luns, &holder->second, &holder->third}) {
    EXPECT_EQ(head->next, head);
    EXPECT_EQ(head->prev, head);
  }
  ++loads;
  std::unique_lock lock(mutex_);
  if (const auto interruption = std::exchange(interruption_, nullptr)) {
    lock.unlock();
    interruption();
    lock.lock();
  }
  if (fails) return -1;
  for (const auto& [identifier, type_flags] : luns_) {
    auto* const lun = new tag_iscsi_lun_;
    std::memset(lun, 0xA5, sizeof *lun);  // what else the library keeps, also behind the NUL
    lun->type_flags = type_flags;
    identifier.copy(lun->identifier, identifier.size());
    lun->identifier[identifier.size()] = '\0';
    lun->link = {&holder->luns, holder->luns.prev};
    holder->luns.prev->next = &lun->link;
    holder->luns.prev = &lun->link;
    ++records_alive;
  }
  return 0;
}

void fake_conf::free(conf_holder* holder) {
  ++frees;
  if (holder->luns.next == nullptr) return;  // never loaded
  while (holder->luns.next != &holder->luns) {
    list_head* const link = holder->luns.next;
    holder->luns.next = link->next;
    delete reinterpret_cast<tag_iscsi_lun_*>(reinterpret_cast<char*>(link) -
                                             offsetof(tag_iscsi_lun_, link));
    --records_alive;
  }
}

}  // namespace vexo::test

int VEXOiSCSIConfGet(load_request* request, conf_holder* holder, list_head* third,
                     list_head* second) {
  return vexo::test::the_conf().get(request, holder, third, second);
}

void VEXOiSCSIConfFree(conf_holder* holder) { vexo::test::the_conf().free(holder); }

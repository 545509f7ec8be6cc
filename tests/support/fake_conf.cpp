#include "fake_conf.h"

#include <gtest/gtest.h>

#include <cstring>

namespace vexo::test {

fake_conf& the_conf() {
  static fake_conf conf;
  return conf;
}

void fake_conf::reset() {
  const std::lock_guard lock(mutex_);
  luns_.clear();
  fail_ = false;
  hold_ = hold::none;
  loads_ = frees_ = records_ = 0;
}

void fake_conf::set(luns inventory) {
  const std::lock_guard lock(mutex_);
  luns_ = std::move(inventory);
}

void fake_conf::fail_loads(bool fail) {
  const std::lock_guard lock(mutex_);
  fail_ = fail;
}

void fake_conf::hold_next_load() {
  const std::lock_guard lock(mutex_);
  hold_ = hold::next;
}

void fake_conf::wait_until_held() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [&] { return hold_ == hold::held; });
}

void fake_conf::release_load() {
  const std::lock_guard lock(mutex_);
  hold_ = hold::none;
  changed_.notify_all();
}

int fake_conf::loads() {
  const std::lock_guard lock(mutex_);
  return loads_;
}

int fake_conf::frees() {
  const std::lock_guard lock(mutex_);
  return frees_;
}

int fake_conf::records_alive() {
  const std::lock_guard lock(mutex_);
  return records_;
}

namespace {
template <std::size_t size>
void expect_zeroed(const std::uint8_t (&bytes)[size]) {
  for (const auto byte : bytes) EXPECT_EQ(byte, 0);
}
}  // namespace

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
  std::unique_lock lock(mutex_);
  ++loads_;
  if (hold_ == hold::next) {
    hold_ = hold::held;
    changed_.notify_all();
    changed_.wait(lock, [&] { return hold_ == hold::none; });
  }
  if (fail_) return -1;
  for (const auto& [identifier, type_flags] : luns_) {
    auto* const lun = new tag_iscsi_lun_;
    std::memset(lun, 0xA5, sizeof *lun);  // what else the library keeps, also behind the NUL
    lun->type_flags = type_flags;
    identifier.copy(lun->identifier, identifier.size());
    lun->identifier[identifier.size()] = '\0';
    lun->link = {&holder->luns, holder->luns.prev};
    holder->luns.prev->next = &lun->link;
    holder->luns.prev = &lun->link;
    ++records_;
  }
  return 0;
}

void fake_conf::free(conf_holder* holder) {
  const std::lock_guard lock(mutex_);
  ++frees_;
  if (holder->luns.next == nullptr) return;  // never loaded
  while (holder->luns.next != &holder->luns) {
    list_head* const link = holder->luns.next;
    holder->luns.next = link->next;
    delete reinterpret_cast<tag_iscsi_lun_*>(reinterpret_cast<char*>(link) -
                                             offsetof(tag_iscsi_lun_, link));
    --records_;
  }
}

}  // namespace vexo::test

int VEXOiSCSIConfGet(load_request* request, conf_holder* holder, list_head* third,
                     list_head* second) {
  return vexo::test::the_conf().get(request, holder, third, second);
}

void VEXOiSCSIConfFree(conf_holder* holder) { vexo::test::the_conf().free(holder); }

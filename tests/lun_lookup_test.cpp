// Finding one LUN in the configuration, with the test's own configuration library.

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "captured_syslog.h"
#include "fake_conf.h"
#include "plugin_utils.h"

namespace vexo::scsiplugin {
namespace {

using test::the_conf;

constexpr char kGuid[] = "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d6";
constexpr char kNaa[] = "60014051a2b3c4dd5e6fd7a8bd9c0dde";

class LunLookup : public testing::Test {
 protected:
  void SetUp() override { the_conf().reset(); }
  void TearDown() override { EXPECT_EQ(the_conf().records_alive, 0); }
};

TEST_F(LunLookup, ByTypeAndIdentifier) {
  the_conf().set({{kGuid, 0xF}, {"short-id", 0xF}, {"", 0xF}});
  const struct {
    LunType type;
    std::string lun_id;
    bool found;
  } cases[] = {
      {LUN_TYPE_80, kGuid, true},
      {LUN_TYPE_80, "1A2B3C4D-5e6f-7a8b-9c0d-e1f2a3b4c5d6", false},
      {LUN_TYPE_80, "1a2b3c4d-5e6f-7a8b-9c0d-e1f2a3b4c5d", false},
      {LUN_TYPE_80, std::string(kGuid) + '\0', false},
      {LUN_TYPE_80, kNaa, false},
      {LUN_TYPE_80, "", true},
      {LUN_TYPE_83, kNaa, true},
      {LUN_TYPE_83, "60014051A2B3C4DD5E6FD7A8BD9C0DDE", false},
      {LUN_TYPE_83, std::string(kNaa) + "2", false},
      {LUN_TYPE_83, kGuid, false},
      {LUN_TYPE_83, "6001405shortdid", true},
      {LUN_TYPE_83, "6001405", true},
      {LUN_TYPE_NONE, kGuid, false},
      {static_cast<LunType>(99), kGuid, false},
  };
  for (const auto& [type, lun_id, found] : cases) {
    tag_iscsi_lun_ lun = {};
    lun.type_flags = 77;  // stays when nothing is found
    const int before = the_conf().loads;
    EXPECT_EQ(GetLunConf(&lun, lun_id, type), found) << type << ' ' << lun_id;
    EXPECT_EQ(lun.type_flags, found ? 0xFU : 77U) << type << ' ' << lun_id;
    const bool known = type == LUN_TYPE_80 || type == LUN_TYPE_83;
    EXPECT_EQ(the_conf().loads - before, known ? 1 : 0) << type;
  }
}

TEST_F(LunLookup, TheFirstOfTwoIsCopiedWhole) {
  // The third has the second's page-83h name, which ends before the identifiers differ.
  the_conf().set({{"other", 1}, {kGuid, 2}, {std::string(kGuid) + "x", 3}, {kGuid, 4}});
  tag_iscsi_lun_ lun = {};
  tag_iscsi_lun_ seen = {};
  int asked = 0;
  EXPECT_TRUE(GetLunConfByFunc(&lun, [&](const tag_iscsi_lun_* record) {
    ++asked;
    std::memcpy(&seen, record, sizeof seen);
    return std::strcmp(record->identifier, kGuid) == 0;
  }));
  EXPECT_EQ(lun.type_flags, 2U);
  EXPECT_EQ(std::memcmp(&lun, &seen, sizeof lun), 0);
  EXPECT_EQ(asked, 2);
  EXPECT_TRUE(GetLunConfByNAA(&lun, kNaa));
  EXPECT_EQ(lun.type_flags, 2U);
}

TEST_F(LunLookup, FreesOnEveryWayOut) {
  the_conf().set({{kGuid, 0xF}});
  EXPECT_FALSE(GetLunConfByGUID(nullptr, kGuid));
  EXPECT_EQ(the_conf().loads, 0);
  EXPECT_EQ(the_conf().frees, 1);
  tag_iscsi_lun_ lun = {};
  EXPECT_THROW(GetLunConfByFunc(&lun, nullptr), std::bad_function_call);
  EXPECT_EQ(the_conf().frees, 2);
  the_conf().fails = true;
  test::captured_syslog().clear();
  EXPECT_FALSE(IsLunSupport(LUN_TYPE_80, kGuid));
  EXPECT_EQ(the_conf().frees, 3);
  EXPECT_EQ(test::captured_syslog().lines(), std::vector{test::line(20)});
}

TEST_F(LunLookup, SupportNeedsAllLowFourBitsOrTheReplicaMask) {
  const std::map<std::uint32_t, bool> verdicts = {
      {0x10F, true},  {0x00F, true},  {0xFFFFFFFF, true}, {0x103, true}, {0x102, false},
      {0x007, false}, {0x003, false}, {0x100, false},     {0, false}};
  for (const auto& [flags, supported] : verdicts) {
    the_conf().set({{kGuid, flags}});
    EXPECT_EQ(IsLunSupport(LUN_TYPE_80, kGuid), supported) << std::hex << flags;
    EXPECT_EQ(IsLunSupport(LUN_TYPE_83, kNaa), supported) << std::hex << flags;
  }
}

}  // namespace
}  // namespace vexo::scsiplugin

// What goes over the wire, from bytes written by hand.

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "lun_cmd.pb.h"
#include "plugin_cmd.pb.h"

namespace vexo::scsiplugin {
namespace {

using namespace std::string_literals;

template <typename Message>
Message parsed(const std::string& bytes) {
  Message message;
  EXPECT_TRUE(message.ParseFromString(bytes));
  return message;
}

TEST(Wire, ALunCmdWithoutAMemberReportsNone) {
  EXPECT_EQ(parsed<LunCmd>("").cmd_body_case(), LunCmd::CMD_BODY_NOT_SET);
  EXPECT_EQ(parsed<LunCmd>("\x12\x01p"s).plugin_id(), "p");
}

TEST(Wire, EveryMemberHasItsNumber) {
  // An empty member message: its tag and a zero length.
  for (int number = 3; number <= 11; ++number) {
    const std::string bytes = {static_cast<char>(number << 3 | 2), 0};
    EXPECT_EQ(parsed<LunCmd>(bytes).cmd_body_case(), number);
  }
  for (int number = 4; number <= 7; ++number) {
    const std::string bytes = {static_cast<char>(number << 3 | 2), 0};
    EXPECT_EQ(parsed<PluginCmd>(bytes).cmd_body_case(), number);
  }
}

TEST(Wire, TheLastOneofMemberWins) {
  const auto cmd =
      parsed<LunCmd>("\x22\x03\x12\x01"s + "a" +     // 4: is_lun_support_req { 2: "a" }
                     "\x52\x05\x0a\x01t\x1a\x00"s);  // 10: start_mirror_req { 1: "t", 3: "" }
  EXPECT_EQ(cmd.cmd_body_case(), LunCmd::kStartMirrorReq);
  EXPECT_EQ(cmd.start_mirror_req().task_id(), "t");
  EXPECT_EQ(cmd.is_lun_support_req().src_lun_id(), "");
}

TEST(Wire, ZeroValuesAreNotSent) {
  LunCmdResp response;
  response.set_success(false);
  response.set_error(SUCCESS);
  EXPECT_EQ(response.SerializeAsString(), "");
  PluginClient client;
  client.set_type(PluginClient::UNKNOWN);
  EXPECT_EQ(client.SerializeAsString(), "");
  EXPECT_EQ(PluginClientList().SerializeAsString(), "");
  PluginCmd cmd;
  cmd.set_cmd_sn(0);
  EXPECT_EQ(cmd.SerializeAsString(), "");
  EXPECT_EQ(parsed<PluginCmd>("").cmd_body_case(), PluginCmd::CMD_BODY_NOT_SET);
}

TEST(Wire, ANegativeResultTakesTenBytes) {
  DepartDoneReq done;
  done.set_result(-1);
  EXPECT_EQ(done.SerializeAsString(), "\x38\xff\xff\xff\xff\xff\xff\xff\xff\xff\x01");
}

TEST(Wire, AnUnlistedEnumNumberIsKept) {
  EXPECT_EQ(parsed<IsLunSupportReq>("\x08\x63"s).type(), 99);
  EXPECT_EQ(parsed<PluginClient>("\x18\x07"s).type(), 7);
  const auto response = parsed<LunCmdResp>("\x28\x65"s);
  EXPECT_EQ(response.error(), 101);
  EXPECT_FALSE(Error_IsValid(response.error()));
}

TEST(Wire, ErrorNumbersHaveTheirHoles) {
  const std::vector<int> valid = {0,   1,   2,   3,   4,   5,   100, 102,
                                  103, 104, 105, 202, 204, 206, 301, 302};
  for (int number = -1; number <= 400; ++number) {
    EXPECT_EQ(Error_IsValid(number), std::count(valid.begin(), valid.end(), number) == 1) << number;
  }
  EXPECT_EQ(Error_Name(LUN_GET_FAILED), "LUN_GET_FAILED");
  EXPECT_EQ(Error_ARRAYSIZE, 303);
}

TEST(Wire, UnknownFieldsAreSkipped) {
  EXPECT_EQ(parsed<LunCmd>("\x0a\x03old\x12\x01p\xfa\x01\x01x"s).plugin_id(), "p");
}

TEST(Wire, BadUtf8FailsTheWholeMessage) {
  EXPECT_FALSE(LunCmd().ParseFromString("\x12\x02\xc3\x28"s));
  EXPECT_FALSE(PluginCmd().ParseFromString("\x08\x01\x1a\x01\xff"s));
  EXPECT_FALSE(PluginClient().ParseFromString("\x0a\x01\x80"s));
}

}  // namespace
}  // namespace vexo::scsiplugin

// What goes over the wire, from bytes written by hand.

#include <google/protobuf/descriptor.h>
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "plugin_service.grpc.pb.h"

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
  const std::map<int, const google::protobuf::FieldDescriptor*> irregular = {
      {8, LunCmd::descriptor()->FindFieldByName("start_tp_task_req")},
      {10, LunCmd::descriptor()->FindFieldByName("start_mirror_req")},
      {11, LunCmd::descriptor()->FindFieldByName("init_snapshot_ready_req")},
      {3, StartMirrorReq::descriptor()->FindFieldByName("src_lun_id")},
      {2, IsLunSupportReq::descriptor()->FindFieldByName("src_lun_id")},
  };
  for (const auto& [number, field] : irregular) EXPECT_EQ(field->number(), number);
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

TEST(Wire, DeclarationOrderStays) {
  const auto* const lun = LunCmd::descriptor()->file();
  const std::vector<std::string> messages = {"CreateMappedTargetReq",
                                             "CreateMappedTargetResp",
                                             "IsLunSupportReq",
                                             "IsLunSupportResp",
                                             "IsMirrorDoneReq",
                                             "StartMirrorReq",
                                             "DepartRelationReq",
                                             "DepartRelationResp",
                                             "DeleteLunReq",
                                             "StarTpTaskReq",
                                             "RestoreLunReq",
                                             "InitSnapshotReadyReq",
                                             "LunCmd",
                                             "LunCmdResp"};
  ASSERT_EQ(lun->message_type_count(), static_cast<int>(messages.size()));
  for (int i = 0; i < lun->message_type_count(); ++i) {
    EXPECT_EQ(lun->message_type(i)->name(), messages[static_cast<std::size_t>(i)]);
  }
  const auto* const plugin = PluginCmd::descriptor()->file();
  EXPECT_EQ(plugin->FindMessageTypeByName("TpTaskReadyReq")->index(), 6);
  EXPECT_EQ(plugin->FindMessageTypeByName("UserChangedReq")->index(), 7);
  EXPECT_EQ(PluginCmdResp::descriptor()->oneof_decl(0)->name(), "cmd_body");
}

TEST(Wire, DefaultHandlersAnswerUnimplemented) {
  PluginService::Service service;
  EXPECT_EQ(service.LunOp(nullptr, nullptr, nullptr).error_code(), grpc::UNIMPLEMENTED);
  EXPECT_EQ(service.Subscribe(nullptr, nullptr, nullptr).error_code(), grpc::UNIMPLEMENTED);
}

}  // namespace
}  // namespace vexo::scsiplugin

// The real process, in a sandbox of its own.

#include "daemon.h"

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/unknown_field_set.h>
#include <grpcpp/generic/generic_stub.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "calls.h"
#include "sandbox.h"
#include "subscriber.h"

namespace vexo::test {
namespace {

using namespace scsiplugin;

const std::vector<log_line> kListening = {
    {6, "scsi_plugin:scsi_plugin_server:30:run_grpc_server Server listening on 0.0.0.0:3265", 0},
    {6,
     "scsi_plugin:scsi_plugin_server:31:run_grpc_server Server listening on "
     "unix:///tmp/iscsi/plugin_server.sock",
     0},
};

class Daemon : public sandboxed {
 protected:
  void SetUp() override {
    sandboxed::SetUp();
    if (!IsSkipped()) log = std::make_unique<dev_log>();
  }

  std::unique_ptr<dev_log> log;
};

std::string open_files_limit(pid_t pid) {
  std::ifstream limits("/proc/" + std::to_string(pid) + "/limits");
  std::string line;
  while (std::getline(limits, line) && !line.starts_with("Max open files")) continue;
  return line;
}

TEST_F(Daemon, ServesBothEndpointsWith1024Files) {
  daemon_options how;
  how.open_files = {4096, 8192};
  const daemon_process daemon(log.get(), how);
  EXPECT_EQ(log->lines(), kListening);
  std::string soft;
  std::string hard;
  std::istringstream limit(
      open_files_limit(daemon.pid()).substr(std::string("Max open files").size()));
  EXPECT_TRUE(limit >> soft >> hard);
  EXPECT_EQ(soft, "1024");
  EXPECT_EQ(hard, "1024");
  const subscriber host(connect(kTcpTarget), "esx");
  ASSERT_TRUE(log->wait_for("Connected: Plugin ID=esx IP=127.0.0.1"));
  for (const char* target : {kTcpTarget, kUnixTarget}) {
    caller local(connect(target));
    while (local.list().list_size() == 0) std::this_thread::yield();
    EXPECT_TRUE(local.lun_op(is_lun_support(kLun, LUN_TYPE_80))) << target;
    EXPECT_FALSE(local.lun_op(is_lun_support(kUnsupportedLun, LUN_TYPE_80))) << target;
  }
}

TEST_F(Daemon, GoesOnUnderALimitThatItMayNotRaise) {
  daemon_options how;
  how.open_files = {512, 512};
  how.may_raise_limits = false;
  const daemon_process daemon(log.get(), how);
  EXPECT_EQ(log->lines()[0],
            (log_line{3, "scsi_plugin:scsi_plugin_server:46:main Failed to set RLIMIT_NOFILE", 0}));
  EXPECT_EQ(log->count("RLIMIT_NOFILE"), 1U);
  EXPECT_EQ(caller(connect(kTcpTarget)).list().list_size(), 0);
}

TEST_F(Daemon, AStartWithoutAnEndpointEndsAbnormally) {
  const int taken = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(3265);
  ASSERT_EQ(bind(taken, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(taken, 1), 0);
  for (const bool port_taken : {true, false}) {
    SCOPED_TRACE(port_taken ? "port 3265 is taken" : "/tmp/iscsi is missing");
    if (!port_taken) close(taken);
    log->clear();
    daemon_options how;
    how.with_directory = port_taken;
    daemon_process daemon(log.get(), how, false);
    const auto status = daemon.wait();
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFSIGNALED(*status)) << *status;
    ASSERT_TRUE(log->wait_for("listening on unix:"));
    EXPECT_EQ(log->lines(), kListening);
  }
}

TEST_F(Daemon, ReplacesAStaleSocketFile) {
  daemon_options how;
  { const daemon_process first(log.get(), how); }
  const daemon_process second(log.get(), how);
  EXPECT_EQ(caller(connect(kUnixTarget)).list().list_size(), 0);
}

TEST_F(Daemon, TheConfigurationLibraryIsTheLoadersChoice) {
  daemon_options how;
  how.library_dir = FAILING_LIBRARY_DIR;
  const daemon_process daemon(log.get(), how);
  EXPECT_FALSE(caller(connect(kUnixTarget)).lun_op(is_lun_support(kLun, LUN_TYPE_80)));
  EXPECT_EQ(log->count("scsi_plugin:plugin_utils:20:GetLunConfByFunc Failed to get config"), 1U);
}

std::string text_of(const grpc::ByteBuffer& buffer) {
  std::vector<grpc::Slice> slices;
  std::string text;
  if (!buffer.Dump(&slices).ok()) return text;
  for (const auto& slice : slices) {
    text.append(reinterpret_cast<const char*>(slice.begin()), slice.size());
  }
  return text;
}

// One call by path and raw bytes, as a generic tool makes it: one message out, one in, then the
// end.
grpc::Status raw_call(const std::string& path, const std::string& request, std::string* response) {
  grpc::GenericStub stub(connect(kTcpTarget));
  grpc::ClientContext context;
  context.set_deadline(std::chrono::system_clock::now() + kPatience);
  grpc::CompletionQueue queue;
  const auto step_done = [&queue] {
    void* tag = nullptr;
    bool ok = false;
    EXPECT_TRUE(queue.Next(&tag, &ok));
    return ok;
  };
  const grpc::Slice slice(request);
  grpc::ByteBuffer answer;
  grpc::Status status;
  const auto call = stub.PrepareCall(&context, path, &queue);
  call->StartCall(nullptr);
  step_done();
  call->WriteLast(grpc::ByteBuffer(&slice, 1), grpc::WriteOptions(), nullptr);
  step_done();
  call->Read(&answer, nullptr);
  if (step_done()) *response = text_of(answer);
  call->Finish(&status, nullptr);
  step_done();
  return status;
}

TEST_F(Daemon, WhatIsNoRequestReachesNoHandler) {
  const daemon_process daemon(log.get());
  const std::string service = "/vexo.scsiplugin.PluginService/";
  const struct {
    std::string method;
    std::string bytes;
    grpc::StatusCode status;
  } cases[] = {
      {"LunOp", "\x52\x04\x1a\x02\xc3\x28", grpc::INTERNAL},  // bad UTF-8 in start_mirror_req
      {"Publish", "\x1a\x01\xff\x2a", grpc::INTERNAL},
      {"UnSubscribe", "\x0a\x7f", grpc::INTERNAL},  // cut short
      {"Unsubscribe", "", grpc::UNIMPLEMENTED},
      {"PluginConnList", "", grpc::OK},
      {"PluginConnList", "\x0a\x01x", grpc::OK},  // an unknown field
  };
  for (const auto& [method, bytes, expected] : cases) {
    std::string response;
    EXPECT_EQ(raw_call(service + method, bytes, &response).error_code(), expected) << method;
    EXPECT_EQ(response, "");
  }
  EXPECT_EQ(log->lines(), kListening);
}

// Generic tools ask the server what it serves, and get all they need to call it.
TEST_F(Daemon, ReflectsItsServiceAndSchema) {
  using google::protobuf::UnknownFieldSet;
  const daemon_process daemon(log.get());
  const std::string symbol = "vexo.scsiplugin.PluginService";
  UnknownFieldSet request;
  request.AddLengthDelimited(4, symbol);  // file_containing_symbol
  std::string bytes;
  std::string answer;
  ASSERT_TRUE(request.SerializeToString(&bytes));
  EXPECT_TRUE(
      raw_call("/grpc.reflection.v1alpha.ServerReflection/ServerReflectionInfo", bytes, &answer)
          .ok());
  UnknownFieldSet fields;
  ASSERT_TRUE(fields.ParseFromString(answer));
  std::set<std::string> files;
  int methods = 0;
  for (int i = 0; i < fields.field_count(); ++i) {
    if (fields.field(i).number() != 4) continue;  // file_descriptor_response
    UnknownFieldSet response;
    ASSERT_TRUE(response.ParseFromString(fields.field(i).length_delimited()));
    for (int j = 0; j < response.field_count(); ++j) {
      google::protobuf::FileDescriptorProto file;
      ASSERT_TRUE(file.ParseFromString(response.field(j).length_delimited()));
      files.insert(file.name());
      for (const auto& service : file.service()) methods += service.method_size();
    }
  }
  EXPECT_EQ(files,
            (std::set<std::string>{"error.proto", "google/protobuf/empty.proto", "lun_cmd.proto",
                                   "plugin_cmd.proto", "plugin_service.proto"}));
  EXPECT_EQ(methods, 5);
}

// A host plugin's side of one hand-shake, up to the moment it has quiesced. It asks about the
// mirror only when the caller has been told of its start: for a LUN that needs none, the question
// moves the task on, and the caller would wait for a state that came and went.
void serve_hand_shake(const dev_log& log, const std::string& key) {
  caller host(connect(kTcpTarget));
  EXPECT_TRUE(host.lun_op(start_mirror(key)));
  EXPECT_TRUE(log.wait_for("Init snapshots success(start mirror) [" + key + "]"));
  while (!host.lun_op(is_mirror_done(key, LUN_TYPE_80))) std::this_thread::yield();
  EXPECT_TRUE(host.lun_op(depart_relation(key)));
}

TEST_F(Daemon, AWholeHandShakeWithTwoHosts) {
  const daemon_process daemon(log.get());
  subscriber owner(connect(kTcpTarget), "owner", PluginClient::VMWARE);
  subscriber bystander(connect(kTcpTarget), "bystander", PluginClient::WINDOWS);
  subscriber unnamed(connect(kTcpTarget), "");
  caller local(connect(kUnixTarget));
  while (local.list().list_size() != 3) std::this_thread::yield();

  for (const std::string key : {kLun, kReplicaLun}) {
    SCOPED_TRACE(key);
    auto host = std::async(std::launch::async, [&] {
      const auto cmd = owner.next_cmd();
      ASSERT_TRUE(cmd);
      EXPECT_EQ(cmd->task_id(), key);
      serve_hand_shake(*log, cmd->init_snapshot_req().src_lun_p80());
    });
    EXPECT_TRUE(local.publish(init_snapshot(key)));
    // A LUN without a mirror may be past this state already.
    const bool told = local.publish(mirror_done(key));
    EXPECT_TRUE(told || key == kReplicaLun);
    EXPECT_TRUE(local.publish(wait_for_depart(key)));
    EXPECT_FALSE(local.publish(init_snapshot(key)));
    EXPECT_TRUE(local.publish(depart_done(key)));
    host.get();
    ASSERT_TRUE(bystander.next_cmd());
    ASSERT_TRUE(unnamed.next_cmd());  // the announcement
    const auto done = unnamed.next_cmd();
    ASSERT_TRUE(done);
    EXPECT_TRUE(done->has_depart_done_req());
    EXPECT_FALSE(local.publish(mirror_done(key)));
  }
}

TEST_F(Daemon, FiftyHandShakesAtOnce) {
  constexpr int kHandShakes = 50;
  const std::string inventory = "/tmp/fifty_luns.json";
  std::ofstream file(inventory);
  file << R"({"storage_objects": [)";
  for (int i = 0; i < kHandShakes; ++i) {
    file << (i == 0 ? "" : ", ") << R"({"wwn": "lun-)" << i << R"("})";
  }
  file << "]}" << std::flush;
  daemon_options how;
  how.inventory = inventory;
  const daemon_process daemon(log.get(), how);
  subscriber host(connect(kTcpTarget), "host");
  ASSERT_TRUE(log->wait_for("Connected: Plugin ID=host"));
  caller watcher(connect(kTcpTarget));
  while (watcher.list().list_size() != 1) std::this_thread::yield();

  std::vector<std::future<void>> parts;
  for (int i = 0; i < kHandShakes; ++i) {
    parts.push_back(std::async(std::launch::async, [key = "lun-" + std::to_string(i)] {
      caller local(connect(kUnixTarget));
      EXPECT_TRUE(local.publish(init_snapshot(key)));
      EXPECT_TRUE(local.publish(mirror_done(key)));
      EXPECT_TRUE(local.publish(wait_for_depart(key)));
      EXPECT_TRUE(local.publish(depart_done(key)));
    }));
  }
  std::set<std::string> announced;
  for (int i = 0; i < kHandShakes; ++i) {
    const auto cmd = host.next_cmd();
    ASSERT_TRUE(cmd);
    announced.insert(cmd->task_id());
    parts.push_back(
        std::async(std::launch::async, serve_hand_shake, std::cref(*log), cmd->task_id()));
  }
  for (auto& part : parts) part.get();
  EXPECT_EQ(announced.size(), static_cast<std::size_t>(kHandShakes));
  EXPECT_EQ(host.cmds_waiting(), 0U);
}

// A subscriber that vanished and was not removed: the broadcast that meets it never ends. The
// process lives, and everything that needs no registry is still served.
TEST_F(Daemon, ABroadcastThatMeetsAVanishedHostNeverReturns) {
  daemon_process daemon(log.get());
  subscriber vanished(connect(kTcpTarget), "vanished");
  caller local(connect(kUnixTarget));
  while (local.list().list_size() != 1) std::this_thread::yield();
  vanished.cancel();
  while (local.list().list_size() != 0) std::this_thread::yield();

  auto hung = std::async(std::launch::async, [] {
    PluginCmdResp response;
    return caller(connect(kUnixTarget))
        .publish_status(init_snapshot(kLun), std::chrono::minutes(5), &response);
  });
  // The broadcast wakes the handler, which logs; its call and its record stay, and are still used.
  ASSERT_TRUE(log->wait_for("Disconnect: Plugin ID=vanished"));
  PluginClientList list;
  EXPECT_EQ(local.list_status(std::chrono::milliseconds(300), &list).error_code(),
            grpc::DEADLINE_EXCEEDED);
  EXPECT_TRUE(local.lun_op(start_mirror(kLun)));
  EXPECT_FALSE(local.lun_op(is_mirror_done(kLun, LUN_TYPE_80)));
  EXPECT_TRUE(local.publish(mirror_done(kLun)));
  EXPECT_TRUE(local.lun_op(is_mirror_done(kLun, LUN_TYPE_80)));
  EXPECT_TRUE(local.lun_op(depart_relation(kLun)));
  EXPECT_TRUE(local.publish(wait_for_depart(kLun)));
  EXPECT_TRUE(local.publish(depart_done(kLun)));
  EXPECT_EQ(hung.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_TRUE(daemon.alive());
  daemon.kill();
  EXPECT_EQ(hung.get().error_code(), grpc::UNAVAILABLE);
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }

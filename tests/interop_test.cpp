// The programs of examples/: other languages, and an HTTP/2 stack that is none of gRPC's own, take
// a whole hand-shake through the daemon.

#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <thread>
#include <vector>

#include "calls.h"
#include "daemon.h"
#include "program.h"
#include "sandbox.h"
#include "subscriber.h"

namespace vexo::test {
namespace {

struct language {
  words host_plugin;
  words local_caller;
  words probe;  // succeeds where the language has its gRPC
};

const language kPython = {{"/usr/bin/python3", "-B", EXAMPLES "/python/host_plugin.py"},
                          {"/usr/bin/python3", "-B", EXAMPLES "/python/local_caller.py"},
                          {"/usr/bin/python3", "-Bc", "import grpc, plugin_service_pb2_grpc"}};
const language kNode = {{"node", EXAMPLES "/node/host_plugin.js"},
                        {"node", EXAMPLES "/node/local_caller.js"},
                        {"node", EXAMPLES "/node/service.js"}};

const std::vector<std::string> kVariables = {"PYTHONPATH=" GENERATED_PYTHON};

class Interop : public sandboxed {
 protected:
  static void play(const language& host, const language& local) {
    for (const auto& needed : {host, local}) {
      const auto probed = run(needed.probe, kVariables);
      if (probed.status == 0) continue;
      GTEST_SKIP() << "what scripts/setup --tests installs is missing: " << probed.err;
    }
    dev_log log;
    const daemon_process daemon(&log);
    program plugin(with(host.host_plugin, {"example", kLun}), kVariables);
    caller watcher(connect(kUnixTarget));
    ASSERT_TRUE(log.wait_for("Connected: Plugin ID=example IP=127.0.0.1")) << plugin.err();
    while (!watcher.is_listed("example")) std::this_thread::yield();

    const auto snapshot = run(with(local.local_caller, {kLun}), kVariables);
    EXPECT_EQ(snapshot.status, 0) << snapshot.err;
    EXPECT_EQ(snapshot.out,
              "init_snapshot_req: yes\nmirror_done_req: yes\nwait_for_depart_req: yes\n"
              "depart_done_req: yes\n");
    EXPECT_TRUE(plugin.wait_for_out("at rest\nat work\n")) << plugin.err();

    plugin.signal(SIGTERM);
    EXPECT_EQ(plugin.wait(), 0) << plugin.err();
    EXPECT_TRUE(log.wait_for("Disconnect: Plugin ID=example"));
    const auto nobody = run(with(local.local_caller, {kLun}), kVariables);
    EXPECT_EQ(nobody.status, 1);
    EXPECT_NE(nobody.err.find("init_snapshot_req: no"), std::string::npos) << nobody.err;
  }

 private:
  static words with(words command, const words& arguments) {
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
  }
};

TEST_F(Interop, PythonHostAndPythonCaller) { play(kPython, kPython); }
TEST_F(Interop, PythonHostAndNodeCaller) { play(kPython, kNode); }
TEST_F(Interop, NodeHostAndPythonCaller) { play(kNode, kPython); }
TEST_F(Interop, NodeHostAndNodeCaller) { play(kNode, kNode); }

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }

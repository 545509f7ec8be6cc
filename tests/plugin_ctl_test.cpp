// plugin_ctl's verbs that ask once: what they print, and how they end.

#include "plugin_ctl.h"

#include <csignal>

namespace vexo::test {
namespace {

struct verb_case {
  words arguments;
  int status;
  std::string out;
  std::string err;  // a part of it; empty when nothing may come
};

void expect(const verb_case& expected) {
  words line = {PLUGIN_CTL};
  line.insert(line.end(), expected.arguments.begin(), expected.arguments.end());
  std::string trace;
  for (const auto& word : expected.arguments) trace += word + " ";
  SCOPED_TRACE(trace);
  const ended_program ended = run(line);
  EXPECT_EQ(ended.status, expected.status);
  EXPECT_EQ(ended.out, expected.out);
  EXPECT_NE(ended.err.find(expected.err), std::string::npos) << ended.err;
  EXPECT_TRUE(!expected.err.empty() || ended.err.empty()) << ended.err;
}

const std::string kNo = "the daemon's answer is no";
const std::string kYesJson = R"({"cmd_sn":0,"success":true})"
                             "\n";
const std::string kLunYesJson = R"({"plugin_id":"","qel_sn":"","success":true,"error":"SUCCESS"})"
                                "\n";

std::string verdict(const std::string& command, const std::string& id, const std::string& answer) {
  std::string table = "COMMAND";
  table.append(command.size() + 2 - table.size(), ' ');
  table += "ID";
  table.append(id.size(), ' ');
  return table + "ANSWER\n" + command + "  " + id + "  " + answer + "\n";
}

TEST_F(PluginCtl, AnswersInTablesAndJson) {
  start();
  const auto host = subscribe("esx\x1b[2J");
  const std::vector<verb_case> cases = {
      {{"list"},
       0,
       "PLUGIN ID   IP         TYPE\n"
       "esx\\x1b[2J  127.0.0.1  unknown\n",
       ""},
      {{"-o", "json", "list"},
       0,
       R"({"list":[{"plugin_id":"esx\u001b[2J","ip":"127.0.0.1","type":"UNKNOWN"}]})"
       "\n",
       ""},
      {{"lun", "support", "--p80", kLun}, 0, verdict("is_lun_support_req", kLun, "yes"), ""},
      {{"lun", "support", "--p83", kLunNaa, "-o", "json"}, 0, kLunYesJson, ""},
      {{"lun", "support", "--p80", kUnsupportedLun},
       1,
       verdict("is_lun_support_req", kUnsupportedLun, "no"),
       kNo},
      {{"lun", "support", "--p83", kLun, "-o", "json"},
       1,
       R"({"plugin_id":"","qel_sn":"","success":false,"error":"SUCCESS"})"
       "\n",
       kNo},
      {{"lun", "naa", kLun}, 0, std::string(kLunNaa) + "\n", ""},
      {{"lun", "naa", "a-b", "-o", "json"},
       0,
       R"({"uuid":"a-b","naa":"6001405adb"})"
       "\n",
       ""},
      {{"lun", "start-mirror", kLun}, 1, verdict("start_mirror_req", kLun, "no"), "init-snapshot"},
      {{"lun", "mirror-done", "--p80", kLun}, 1, verdict("is_mirror_done_req", kLun, "no"), kNo},
      {{"lun", "depart", kLun}, 1, verdict("depart_relation_req", kLun, "no"), "init-snapshot"},
      {{"publish", "mirror-done", kLun}, 1, verdict("mirror_done_req", kLun, "no"), kNo},
      {{"publish", "wait-for-depart", kLun}, 1, verdict("wait_for_depart_req", kLun, "no"), kNo},
      {{"publish", "depart-done", kLun}, 0, verdict("depart_done_req", kLun, "yes"), ""},
      {{"unsubscribe", "nobody"}, 0, verdict("UnSubscribe", "nobody", "yes"), ""},
      {{"unsubscribe", "esx\x1b[2J", "-o", "json"}, 0, "{}\n", ""},
      {{"list"}, 0, "PLUGIN ID  IP  TYPE\n", "no plugin is subscribed"},
      {{"list", "-o", "json"},
       0,
       R"({"list":[]})"
       "\n",
       ""},
      {{"publish", "init-snapshot", "--p80", kLun},
       1,
       verdict("init_snapshot_req", kLun, "no"),
       "no host plugin is subscribed"},
  };
  for (const auto& each : cases) expect(each);
  EXPECT_TRUE(host->end());
}

TEST_F(PluginCtl, PublishesEveryFieldOfAWholeHandShake) {
  start();
  const auto host = subscribe("");  // the one that depart_done is forwarded to
  program init(command_line({"publish", "init-snapshot", "--p80", kLun, "--p83", kLunNaa, "--uuid",
                             "U", "--dst-uuid", "D", "--replica", "--cmd-sn", "4294967295",
                             "--qel-sn", "Q", "-o", "json"}));
  const auto announced = host->next_cmd();
  ASSERT_TRUE(announced);
  EXPECT_EQ(announced->ShortDebugString(),
            std::string("cmd_sn: 4294967295 qel_sn: \"Q\" task_id: \"") + kLun +
                "\" init_snapshot_req { src_lun_uuid: \"U\" src_lun_p80: \"" + kLun +
                "\" src_lun_p83: \"" + kLunNaa + "\" dst_lun_uuid: \"D\" is_for_replica: true }");
  const std::string target = "127.0.0.1";
  expect({{"-t", target, "lun", "start-mirror", kLun, "-o", "json"}, 0, kLunYesJson, ""});
  EXPECT_EQ(init.wait(), 0);
  EXPECT_EQ(init.out(), std::string(R"({"cmd_sn":0,"success":true,"init_snapshot_resp":)") +
                            R"({"task_id":")" + kLun + "\"}}\n");
  expect({{"publish", "mirror-done", kLun, "-o", "json"}, 0, kYesJson, ""});
  expect(
      {{"lun", "mirror-done", "--p80", kLun}, 0, verdict("is_mirror_done_req", kLun, "yes"), ""});
  program wait(command_line({"publish", "wait-for-depart", kLun, "--uuid", "U"}));
  ASSERT_TRUE(log->wait_for("Wait for depart relation ["));
  expect({{"lun", "depart", kLun}, 0, verdict("depart_relation_req", kLun, "yes"), ""});
  EXPECT_EQ(wait.wait(), 0);
  expect({{"publish", "depart-done", kLun, "--result", "-2", "--p83", kLunNaa, "--dst-p80", "DP",
           "--dst-p83", "DN"},
          0,
          verdict("depart_done_req", kLun, "yes"),
          ""});
  const auto departed = host->next_cmd();
  ASSERT_TRUE(departed);
  EXPECT_EQ(departed->ShortDebugString(),
            std::string("task_id: \"") + kLun + "\" depart_done_req { src_lun_p80: \"" + kLun +
                "\" src_lun_p83: \"" + kLunNaa +
                "\" dst_lun_p80: \"DP\" dst_lun_p83: \"DN\" result: -2 }");
}

// Every verb that makes a call, each with what it needs at least.
const std::vector<words> kCallingVerbs = {
    {"list"},
    {"list", "--watch"},
    {"unsubscribe", "x"},
    {"subscribe", "x"},
    {"lun", "support", "--p80", kLun},
    {"lun", "start-mirror", kLun},
    {"lun", "mirror-done", "--p83", kLunNaa},
    {"lun", "depart", kLun},
    {"publish", "init-snapshot", "--p80", kLun},
    {"publish", "mirror-done", kLun},
    {"publish", "wait-for-depart", kLun},
    {"publish", "depart-done", kLun},
    {"snapshot", "--p80", kLun, "-o", "json"},
};

TEST_F(PluginCtl, SaysWhatToDoWhenTheDaemonIsDown) {
  std::vector<words> lines = kCallingVerbs;
  for (const char* target : {"127.0.0.1", "localhost:3266", "[::1]:1"}) {
    lines.push_back({"list", "--target", target});
  }
  for (const words& line : lines) {
    const ended_program ended = ctl(line);
    SCOPED_TRACE(line[0] + " " + line.back());
    EXPECT_EQ(ended.status, 3) << ended.err;
    for (const auto* part : {"came back: UNAVAILABLE", "next:      see that scsi_plugin_server"}) {
      EXPECT_NE(ended.err.find(part), std::string::npos) << ended.err;
    }
  }
}

TEST_F(PluginCtl, GivesUpAtTheDeadline) {
  start();
  daemon->stop();
  for (words verb : kCallingVerbs) {
    verb.insert(verb.end(), {"--timeout", "0.2"});
    const ended_program ended = ctl(verb);
    SCOPED_TRACE(verb[0] + " " + verb[1]);
    EXPECT_EQ(ended.status, 3);
    EXPECT_NE(ended.err.find("came back: DEADLINE_EXCEEDED"), std::string::npos) << ended.err;
    EXPECT_NE(ended.err.find("next:      allow it longer with --timeout"), std::string::npos);
  }
}

// What answers on the endpoint is something else altogether.
TEST_F(PluginCtl, NamesAnyOtherStatus) {
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  scsiplugin::PluginService::Service no_methods;  // the generated one, which answers nothing
  builder.RegisterService(&no_methods);
  const auto server = builder.BuildAndStart();
  expect({{"list", "-t", "127.0.0.1:" + std::to_string(port)}, 4, "", "came back: UNIMPLEMENTED"});
}

TEST_F(PluginCtl, EndsWaitsOnASignal) {
  start();
  const auto host = subscribe("esx");
  for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
    program init(command_line({"publish", "init-snapshot", "--p80", std::to_string(number)}));
    ASSERT_TRUE(host->next_cmd());
    init.signal(number);
    EXPECT_EQ(init.wait(), 5);
    EXPECT_NE(init.err().find("depart-done " + std::to_string(number)), std::string::npos)
        << init.err();
  }
}

TEST_F(PluginCtl, RefusesCommandLinesThatSayTooLittleOrTooMuch) {
  const std::vector<std::pair<words, std::string>> cases = {
      {{}, "A subcommand is required"},
      {{"lis"}, "\"lis\" is not understood"},
      {{"lun", "start"}, "\"start\" is not understood"},
      {{"list", "extra"}, "\"extra\" is not understood"},
      {{"unsubscribe"}, "PLUGIN_ID is required"},
      {{"lun", "support"}, "Exactly 1 option from [--p80,--p83] is required"},
      {{"lun", "support", "--p80", "a", "--p83", "b"}, "Exactly 1 option"},
      {{"publish", "init-snapshot"}, "--p80 is required"},
      {{"publish", "init-snapshot", "--p80", "a", "--cmd-sn", "-1"}, "--cmd-sn"},
      {{"publish", "depart-done", "a", "--result", "2147483648"}, "--result"},
      {{"subscribe", "a", "--type", "linux"}, "--type"},
      {{"lun", "depart", "\xff"}, "not well-formed UTF-8"},
      {{"list", "-o", "xml"}, "--output"},
      {{"list", "--timeout", "0"}, "no number of seconds"},
      {{"list", "--timeout", "nan"}, "no number of seconds"},
      {{"list", "-t", "host:0"}, "the port must be a number"},
      {{"list", "-t", "/tmp/x"}, "unix:///tmp/x"},
      {{"probe", "--tcp", "-t", "host"}, "--target together with"},
      {{"guard", "-t", "10.0.0.7"}, "run the guard on the appliance"},
      {{"guard", "--fail-after", "5", "--timeout", "5"}, "--timeout is not shorter"},
      {{"guard", "--interval", "0"}, "--interval"},
  };
  for (const auto& [arguments, complaint] : cases) expect({arguments, 2, "", complaint});
}

TEST_F(PluginCtl, ShowsAnExampleInTheHelpOfEachVerb) {
  std::vector<words> verbs = kCallingVerbs;
  verbs.insert(verbs.end(),
               {{}, {"lun"}, {"publish"}, {"lun", "naa"}, {"probe"}, {"guard"}, {"guard-status"}});
  for (words verb : verbs) {
    verb.push_back("--help");
    const ended_program ended = ctl(verb);
    EXPECT_EQ(ended.status, 0);
    EXPECT_NE(ended.out.find("\n  plugin_ctl "), std::string::npos) << ended.out;
  }
  EXPECT_EQ(ctl({"--version"}).out.rfind("plugin_ctl ", 0), 0U);
}

TEST_F(PluginCtl, ProbesBothEndpointsOnConnectionsOfTheirOwn) {
  EXPECT_EQ(ctl({"probe"}).status, 3);
  start();
  const ended_program up = ctl({"probe"});
  EXPECT_EQ(up.status, 0);
  EXPECT_EQ(up.out.rfind("127.0.0.1:3265 answers in ", 0), 0U) << up.out;
  EXPECT_NE(up.out.find("; unix:///tmp/iscsi/plugin_server.sock answers in "), std::string::npos);
  EXPECT_EQ(std::count(up.out.begin(), up.out.end(), '\n'), 1);

  ASSERT_EQ(unlink("/tmp/iscsi/plugin_server.sock"), 0);
  const ended_program half = ctl({"probe", "-o", "json"});
  EXPECT_EQ(half.status, 3);
  EXPECT_NE(half.out.find(R"({"endpoint":"127.0.0.1:3265","answers":true,)"), std::string::npos);
  EXPECT_NE(half.out.find(R"({"endpoint":"unix:///tmp/iscsi/plugin_server.sock","answers":false,)"),
            std::string::npos);
  EXPECT_EQ(ctl({"probe", "--tcp"}).status, 0);
  EXPECT_EQ(ctl({"probe", "--unix"}).status, 3);
  EXPECT_EQ(ctl({"-t", "127.0.0.2", "probe"}).status, 0);
  daemon->stop();
  EXPECT_EQ(ctl({"probe", "--tcp", "--timeout", "0.2"}).status, 3);
  EXPECT_EQ(log->count("Connected"), 0U);
}

TEST_F(PluginCtl, WatchesTheListThroughARestartOfTheDaemon) {
  start();
  program watch(command_line({"list", "--watch", "-o", "json"}));
  ASSERT_TRUE(watch.wait_for_out("{\"list\":[]}\n"));
  {
    const auto host = subscribe("esx");
    ASSERT_TRUE(watch.wait_for_out("\"plugin_id\":\"esx\""));
    daemon->kill();
    ASSERT_TRUE(watch.wait_for_err("asking on"));
  }
  start();
  ASSERT_TRUE(watch.wait_for_err("answers again"));
  watch.signal(SIGINT);
  EXPECT_EQ(watch.wait(), 5);
  const std::string out = watch.out();
  EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << out;
  EXPECT_EQ(out.find('\x1b'), std::string::npos);
}

}  // namespace
}  // namespace vexo::test

int main(int argc, char** argv) { return vexo::test::run_sandboxed_tests(argc, argv); }

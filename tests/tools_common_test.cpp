// What the tools share, as far as it needs no daemon.

#include <gtest/gtest.h>

#include <stdexcept>

#include "common/command_fields.h"
#include "common/daemon_log.h"
#include "common/endpoint.h"
#include "common/help_text.h"
#include "common/metrics.h"
#include "common/output.h"
#include "common/text.h"

namespace vexo::tools {
namespace {

TEST(Endpoint, IsReadAsPeopleWriteIt) {
  using family = endpoint::family;
  struct expectation {
    const char* written;
    family kind;
    const char* target;
    const char* text;
  };
  const expectation cases[] = {
      {"unix:///run/x.sock", family::unix_socket, "unix:/run/x.sock", "unix:///run/x.sock"},
      {"unix:x.sock", family::unix_socket, "unix:x.sock", "unix:x.sock"},
      {"10.0.0.7", family::ipv4, "dns:///10.0.0.7:3265", "10.0.0.7:3265"},
      {"10.0.0.7:1", family::ipv4, "dns:///10.0.0.7:1", "10.0.0.7:1"},
      {"box-1.lan:65535", family::host_name, "dns:///box-1.lan:65535", "box-1.lan:65535"},
      {"::1", family::ipv6, "dns:///[::1]:3265", "[::1]:3265"},
      {"[fe80::2]:99", family::ipv6, "dns:///[fe80::2]:99", "[fe80::2]:99"},
  };
  for (const auto& expected : cases) {
    const endpoint parsed = parse_endpoint(expected.written);
    EXPECT_EQ(parsed.kind, expected.kind) << expected.written;
    EXPECT_EQ(parsed.target, expected.target);
    EXPECT_EQ(parsed.text, expected.text);
    EXPECT_EQ(parse_endpoint(parsed.text).target, expected.target);
  }
  for (const char* bad : {"",        ":",       ":3265",    "h:",     "h:0",
                          "h:65536", "h:1x",    "h: 1",     "a b",    "h/x",
                          "[::1",    "[::1]x",  "[::1]:",   "[h]:1",  "1:2:3:4:5:6:7:8:9",
                          "unix:",   "unix://", "unix://x", "user@h", "/x"}) {
    EXPECT_THROW(parse_endpoint(bad), std::invalid_argument) << bad;
  }
}

TEST(DaemonLog, TellsWhichHostWasPushedTo) {
  const std::string before = "scsi_plugin:plugin_client:37:push_cmd push command to plugin_id=";
  EXPECT_EQ(pushed_host(before + "esx 7 ip=x ip=10.0.0.7"), "esx 7 ip=x (10.0.0.7)");
  EXPECT_EQ(pushed_host(before + " ip=10.0.0.7"), " (10.0.0.7)");
  for (const auto& other :
       {before + "esx", "other: " + before + "esx ip=10.0.0.7", std::string()}) {
    EXPECT_FALSE(pushed_host(other)) << other;
  }
}

TEST(Help, FitsTheTerminal) {
  const std::string row(30, ' ');
  const std::string help =
      "What it does, in sentences that were broken at\n"
      "some other width than this.\nUsage: tool\n\nOptions:\n"
      "  -a,--all TEXT               Everything, however much that may be for a terminal\n" +
      row + "as narrow as this one\n  --a-name-that-leaves-no-room-for-it SECONDS:[1 to 2]\n" +
      row +
      "Fits\n\nExample:\n  tool --with a --command line --that must --not be --broken or --joined\n"
      "  tool\n";
  EXPECT_EQ(wrapped_help(help, 200), help);
  EXPECT_EQ(wrapped_help(help, 64),
            "What it does, in sentences that were broken at\n"
            "some other width than this.\nUsage: tool\n\nOptions:\n"
            "  -a,--all TEXT               Everything, however much that may\n" +
                row + "be for a terminal as narrow as\n" + row + "this one\n" +
                help.substr(help.find("  --a-name")));
  EXPECT_TRUE(
      wrapped_help(help, 40).starts_with("What it does, in sentences that were\n"
                                         "broken at some other width than this.\n"
                                         "Usage: tool\n"));
}

TEST(Text, CannotSteerATerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"plain", "plain"},
      {"M\xc3\xbcnchen \xe2\x82\xac \xf0\x9f\x98\x80",
       "M\xc3\xbcnchen \xe2\x82\xac \xf0\x9f\x98\x80"},
      {"a\x1b[2Jb\n\t\x7f", R"(a\x1b[2Jb\x0a\x09\x7f)"},
      {"\xc2\x9b"
       "2J",
       R"(\xc2\x9b2J)"},  // a C1 control
      {"\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80", R"(\xc0\xaf \xed\xa0\x80 \xf4\x90\x80\x80)"},
      {"\xe2\x82", R"(\xe2\x82)"},
      {std::string("\0", 1), R"(\x00)"},
      {"\xe2\x80\xae \xe2\x81\xa6 \xd8\x9c \xe2\x80\xa8",
       R"(\xe2\x80\xae \xe2\x81\xa6 \xd8\x9c \xe2\x80\xa8)"},  // bidirectional, and a line's end
      {"\xe2\x80\x9c\xe2\x80\xa7\xe2\x81\xa5", "\xe2\x80\x9c\xe2\x80\xa7\xe2\x81\xa5"},
  };
  for (const auto& [text, shown] : cases) {
    EXPECT_EQ(printable(text).str(), shown);
    EXPECT_EQ(printable(shown).str(), shown);
  }
  EXPECT_TRUE(is_utf8("\xc3\xbc"));
  EXPECT_FALSE(is_utf8("a\xff"));
}

TEST(Table, LinesUpByCharacters) {
  table rows({"ID", "IP"});
  rows.add({"M\xc3\xbcnchen", "1.2.3.4"});
  rows.add({"", "x\ny"});
  EXPECT_EQ(rows.text().str(), "ID       IP\nM\xc3\xbcnchen  1.2.3.4\n\"\"       x\\x0ay\n");
}

TEST(MetricsPage, IsTextThatPrometheusReads) {
  using type = metrics_page::type;
  metrics_page page;
  histogram frozen({0.25, 10});
  for (const double seconds : {0.25, 0.5, 20.25}) frozen.observe(seconds);
  page.family("x_seconds", type::histogram, "How long.");
  page.samples(frozen, {{"lun", "a\"b\\c\n\xff"}});
  page.family("x_listed", type::gauge, "Whether.");
  page.sample(1732233600);
  EXPECT_EQ(page.text(), R"(# HELP x_seconds How long.
# TYPE x_seconds histogram
x_seconds_bucket{lun="a\"b\\c\\x0a\\xff",le="0.25"} 1
x_seconds_bucket{lun="a\"b\\c\\x0a\\xff",le="10"} 2
x_seconds_bucket{lun="a\"b\\c\\x0a\\xff",le="+Inf"} 3
x_seconds_sum{lun="a\"b\\c\\x0a\\xff"} 21
x_seconds_count{lun="a\"b\\c\\x0a\\xff"} 3
# HELP x_listed Whether.
# TYPE x_listed gauge
x_listed 1732233600
)");
}

TEST(CommandEnvironment, HoldsEveryFieldAndOnlyThoseOfTheBodyThatIsSet) {
  scsiplugin::PluginCmd command;
  EXPECT_EQ(command_environment(command),
            (std::vector<std::string>{"VEXO_COMMAND=", "VEXO_CMD_SN=0",
                                      "VEXO_QEL_SN=", "VEXO_TASK_ID="}));
  command.set_cmd_sn(7);
  command.mutable_wait_for_depart_req()->set_dst_lun_uuid("D");
  EXPECT_EQ(command_environment(command),
            (std::vector<std::string>{
                "VEXO_COMMAND=wait_for_depart_req", "VEXO_CMD_SN=7",
                "VEXO_QEL_SN=", "VEXO_TASK_ID=", "VEXO_SRC_LUN_UUID=", "VEXO_DST_LUN_UUID=D"}));
}

}  // namespace
}  // namespace vexo::tools

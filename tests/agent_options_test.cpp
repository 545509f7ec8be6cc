// The agent's options: what is wrong with them, and where.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "plugin_agent/options.h"

namespace vexo::tools {
namespace {

struct parsed {
  std::optional<agent_options> options;
  exit_code end = exit_code::done;
  std::string complaint;
};

parsed parse(std::vector<std::string> words) {
  words.insert(words.begin(), "plugin_agent");
  std::vector<char*> argv;
  for (auto& each : words) argv.push_back(each.data());
  parsed result;
  testing::internal::CaptureStderr();
  result.options = parse_agent_options(static_cast<int>(argv.size()), argv.data(), result.end);
  result.complaint = testing::internal::GetCapturedStderr();
  return result;
}

class AgentOptions : public testing::Test {
 protected:
  AgentOptions() { std::filesystem::create_directory(directory); }
  ~AgentOptions() override { std::filesystem::remove_all(directory); }

  // The words, and --config with this in its file.
  parsed parse_with_file(const std::string& text, std::vector<std::string> words = {}) const {
    std::ofstream(file) << text;
    words.insert(words.end(), {"--config", file});
    return parse(words);
  }

  const std::string directory =
      testing::TempDir() + "agent_options_test." + std::to_string(getpid());
  const std::string file = directory + "/agent.toml";
};

TEST_F(AgentOptions, OfTheCommandLineSayWhatIsWrong) {
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"--lun=L"}, "--appliance is required"},
      {{"--appliance=nas"}, "--lun is required"},
      {{"--appliance=[::1]", "--lun=L"}, "IPv4 peers only"},
      {{"--appliance=unix:///tmp/s", "--lun=L"}, "IPv4 peers only"},
      {{"--appliance=nas:70000", "--lun=L"}, "port"},
      {{"--type=os2"}, "--type"},
      {{"--max-freeze=inf"}, "\"inf\" is no number from 0.1 to 60"},
      {{"--max-mirror=nan"}, "is no number from"},
      {{"--hook-timeout=-1"}, "is no number from"},
      {{"--config=/none"}, "/none cannot be read: No such file or directory"},
      {{"--config=" + directory}, " cannot be read: Is a directory"},
  };
  for (const auto& [words, complaint] : cases) {
    const parsed refused = parse(words);
    EXPECT_EQ(refused.end, exit_code::usage) << complaint;
    EXPECT_NE(refused.complaint.find(complaint), std::string::npos) << refused.complaint;
  }
}

TEST_F(AgentOptions, OfAFileSayWhatIsWrongAndInWhichLine) {
  const std::pair<const char*, const char*> cases[] = {
      {"lun = [\n\"L\"\n", ":2: Error while parsing array"},  // no closing bracket
      {"lun = \"L\nverbose = true\n", ":1: Error while parsing string"},
      {"\ntype = windows\n", ":2: Error while parsing value"},
      {"lun = \"L\"\nlun = \"M\"\n", ":2: Error while parsing key-value pair: cannot redefine"},
      {"# \xff\n", ":1: Encountered invalid utf-8"},
      {"\n[agent]\nlun = \"L\"\n", ":2: \"agent\" is a section"},
      {"\n\nappliances = \"nas\"\n", ":3: no option is called \"appliances\""},
      {"config = \"x\"\n", ":1: no option is called \"config\""},
      {"poll = \"1\"\n", ":1: poll must be a number, not of type string"},
      {"lun = [\n  \"L\",\n  5]\n", ":3: lun must be a string, not of type integer"},
      {"hooks = [\"/h\"]\n", ":1: hooks must be a string, not of type array"},
      {"verbose = 1\n", ":1: verbose must be true or false, not of type integer"},
      {"\nmax-freeze = 61\n", ":2: --max-freeze: \"61\" is no number from 0.1 to 60"},
      {"poll = nan\n", ":1: --poll: \"nan\" is no number from"},
      {"type = \"os2\"\n", ":1: --type: os2 not in"},
      {"lun = \"L\"\nappliance = \"::1\"\n", ":2: --appliance ::1: commands are pushed to IPv4"},
      {"appliance = \"nas\"\nlun = []\n", ": --lun is required"},
  };
  for (const auto& [text, complaint] : cases) {
    const parsed refused = parse_with_file(text);
    EXPECT_EQ(refused.end, exit_code::usage) << text;
    EXPECT_EQ(refused.complaint.find("plugin_agent: " + file + complaint), 0U) << refused.complaint;
  }
}

TEST_F(AgentOptions, OfTheCommandLineGoBeforeThoseOfTheFile) {
  const parsed read = parse_with_file(
      "appliance = 'nas'\nlun = [ # all\n'L',\n'any',\n]\npoll = 2\nmax-freeze = 1.5e0\n"
      "type = 'windows'\nverbose = true\n",
      {"--poll=0.25", "--plugin-id=host"});
  ASSERT_TRUE(read.options) << read.complaint;
  EXPECT_EQ(read.options->appliances.at(0).text, "nas:3265");
  EXPECT_EQ(read.options->luns, std::vector<std::string>{"L"});
  EXPECT_TRUE(read.options->any_lun);
  EXPECT_EQ(read.options->poll, std::chrono::milliseconds(250));
  EXPECT_EQ(read.options->max_freeze, std::chrono::milliseconds(1500));
  EXPECT_EQ(read.options->type, scsiplugin::PluginClient::WINDOWS);
  EXPECT_TRUE(read.options->verbose);
  const parsed refused = parse_with_file("lun = 'L'\nappliance = 'nas'\n", {"--lun", ""});
  EXPECT_EQ(refused.complaint.find("plugin_agent: --lun is empty"), 0U) << refused.complaint;
}

}  // namespace
}  // namespace vexo::tools

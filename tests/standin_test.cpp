// The stand-in for the closed library, as the daemon calls it.

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "captured_syslog.h"
#include "vexo_iscsi_ep.h"

namespace vexo::test {
namespace {

using inventory = std::vector<std::pair<std::string, std::uint32_t>>;

class Standin : public testing::Test {
 protected:
  Standin() {
    std::string name = std::filesystem::temp_directory_path() / "standin_test.XXXXXX";
    EXPECT_NE(mkdtemp(name.data()), nullptr);
    directory_ = name;
    path = directory_ + "/luns.json";
    setenv("VEXO_ISCSI_CONF", path.c_str(), 1);
    captured_syslog().clear();
  }
  ~Standin() override { std::filesystem::remove_all(directory_); }
  Standin(const Standin&) = delete;
  Standin& operator=(const Standin&) = delete;

  void write(const std::string& text) const { std::ofstream(path) << text; }

  // Loads, frees, and gives what the list held in between.
  static int load(inventory* luns) {
    conf_holder holder = {};
    load_request request = {};
    request.what = 0x7000;
    for (auto* head : {&holder.luns, &holder.second, &holder.third}) head->next = head->prev = head;
    const int result = VEXOiSCSIConfGet(&request, &holder, &holder.third, &holder.second);
    for (list_head* link = holder.luns.next; link != &holder.luns; link = link->next) {
      EXPECT_EQ(link->next->prev, link);
      const auto* const lun = reinterpret_cast<const tag_iscsi_lun_*>(
          reinterpret_cast<const char*>(link) - offsetof(tag_iscsi_lun_, link));
      luns->emplace_back(lun->identifier, lun->type_flags);
    }
    VEXOiSCSIConfFree(&holder);
    EXPECT_EQ(holder.luns.next, &holder.luns);
    return result;
  }

  std::string path;

 private:
  std::string directory_;
};

TEST_F(Standin, KeepsTheFilesOrderAndIgnoresWhatItDoesNotKnow) {
  const std::string longest(4394, 'x');
  write(R"({"fabric_modules": [1, {"wwn": 7}], "storage_objects": [
    {"wwn": "b", "name": "second in the alphabet", "attributes": {"wwn": "inner"}},
    {"wwn": "a", "type_flags": 259},
    {"type_flags": "0x10F", "wwn": "c"},
    {"wwn": "d", "type_flags": "0xFFFFFFFF"},
    {"wwn": "e", "type_flags": 4294967295},
    {"wwn": "f", "type_flags": 0},
    {"wwn": ")" +
        longest + R"("}], "targets": null})");
  inventory luns;
  EXPECT_EQ(load(&luns), 0);
  const inventory expected = {{"b", 0xF},        {"a", 0x103}, {"c", 0x10F},  {"d", 0xFFFFFFFF},
                              {"e", 0xFFFFFFFF}, {"f", 0},     {longest, 0xF}};
  EXPECT_EQ(luns, expected);
  EXPECT_TRUE(captured_syslog().lines().empty());
}

TEST_F(Standin, AnEditShowsAtTheNextLoad) {
  const std::pair<std::string, inventory> edits[] = {
      {"", {}}, {R"({"wwn": "one"})", {{"one", 0xF}}}, {R"({"wwn": "two"})", {{"two", 0xF}}}};
  for (const auto& [objects, expected] : edits) {
    write(R"({"storage_objects": [)" + objects + "]}");
    inventory luns;
    EXPECT_EQ(load(&luns), 0);
    EXPECT_EQ(luns, expected);
  }
}

TEST_F(Standin, ABadFileFailsAsAWholeWithOneLine) {
  const std::string good = R"({"wwn": "good"}, )";
  const std::pair<std::string, std::string> cases[] = {
      {"", "Empty"},
      {"{", "JSON"},
      {R"({"storage_objects": [)" + good + "]}", "JSON"},
      {R"({"storage_objects": [)", "JSON"},
      {R"({"storage_objects": [{"wwn": "\ud800"}]})", "string"},
      {"[]", "not an object"},
      {"{}", "no array storage_objects"},
      {R"({"storage_objects": {}})", "no array storage_objects"},
      {R"({"storage_objects": [)" + good + R"("text"]})", "storage_objects[1]: is not an object"},
      {R"({"storage_objects": [)" + good + R"({"name": "x"}]})", "[1]: has no wwn"},
      {R"({"storage_objects": [)" + good + R"({"wwn": 5}]})", "[1]: wwn is not a string"},
      {R"({"storage_objects": [)" + good + R"({"wwn": null}]})", "[1]: wwn is not a string"},
      {R"({"storage_objects": [{"wwn": "a\u0000b"}]})", "[0]: wwn holds a NUL"},
      {R"({"storage_objects": [{"wwn": ")" + std::string(4395, 'x') + R"("}]})",
       "[0]: wwn is longer"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": -1}]})", "out of range"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": 4294967296}]})", "out of range"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": 18446744073709551615}]})",
       "out of range"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": "0x100000000"}]})", "out of range"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": "0x"}]})", "not a hexadecimal"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": "0x1g"}]})", "not a hexadecimal"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": "0x-1"}]})", "not a hexadecimal"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": "15"}]})", "neither an integer nor"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": 1.5}]})", "neither an integer nor"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": 1e400}]})", "number"},
      {R"({"storage_objects": [{"wwn": "a", "type_flags": null}]})", "neither an integer nor"},
  };
  for (const auto& [text, reason] : cases) {
    captured_syslog().clear();
    write(text);
    inventory luns;
    EXPECT_NE(load(&luns), 0) << text;
    EXPECT_TRUE(luns.empty()) << text;
    const auto lines = captured_syslog().lines();
    ASSERT_EQ(lines.size(), 1U) << text;
    EXPECT_EQ(lines[0].priority, 3);
    EXPECT_NE(lines[0].text.find(path + ": "), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].text.find(reason), std::string::npos) << lines[0] << " for " << text;
  }
}

TEST_F(Standin, AMissingFileOrADirectoryFails) {
  for (const std::string& name : {path, std::string("/")}) {
    setenv("VEXO_ISCSI_CONF", name.c_str(), 1);
    captured_syslog().clear();
    inventory luns;
    EXPECT_NE(load(&luns), 0) << name;
    const auto lines = captured_syslog().lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_NE(lines[0].text.find(name + ": "), std::string::npos) << lines[0];
  }
}

TEST_F(Standin, FreesAHolderThatWasNeverLoaded) {
  conf_holder holder = {};
  VEXOiSCSIConfFree(&holder);
  VEXOiSCSIConfFree(&holder);
}

TEST_F(Standin, ThreadsLoadAtOnce) {
  write(R"({"storage_objects": [{"wwn": "a"}, {"wwn": "b"}]})");
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([] {
      for (int round = 0; round < 50; ++round) {
        inventory luns;
        EXPECT_EQ(load(&luns), 0);
        EXPECT_EQ(luns.size(), 2U);
      }
    });
  }
  for (auto& thread : threads) thread.join();
}

}  // namespace
}  // namespace vexo::test

// The stand-in for the closed library, as the daemon calls it.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "captured_syslog.h"
#include "vexo_iscsi_ep.h"

namespace vexo::test {
namespace {

using inventory = std::vector<std::pair<std::string, std::uint32_t>>;

// Loads the file and frees what was loaded; `luns` gets the list. Also frees a holder that was
// never loaded.
int load(const std::string& path, inventory* luns) {
  setenv("VEXO_ISCSI_CONF", path.c_str(), 1);
  captured_syslog().clear();
  conf_holder holder = {};
  VEXOiSCSIConfFree(&holder);
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

class Standin : public testing::Test {
 protected:
  void TearDown() override { std::remove(path_.c_str()); }

  // Writes the file; returns its path.
  std::string file(const std::string& text) const {
    std::ofstream(path_) << text;
    return path_;
  }

 private:
  const std::string path_ = testing::TempDir() + "/standin_test." + std::to_string(getpid());
};

TEST_F(Standin, KeepsTheFilesOrderAndIgnoresWhatItDoesNotKnow) {
  const std::string longest(4394, 'x');
  const std::string text = R"({"fabric_modules": [1, {"wwn": 7}], "storage_objects": [
    {"wwn": "b", "name": "second in the alphabet", "attributes": {"wwn": "inner"}},
    {"wwn": "a", "type_flags": 259},
    {"type_flags": "0x10F", "wwn": "c"},
    {"wwn": "d", "type_flags": "0xFFFFFFFF"},
    {"wwn": "e", "type_flags": 4294967295},
    {"wwn": "f", "type_flags": 0},
    {"wwn": ")" + longest + R"("}], "targets": null})";
  const inventory expected = {{"b", 0xF},        {"a", 0x103}, {"c", 0x10F},  {"d", 0xFFFFFFFF},
                              {"e", 0xFFFFFFFF}, {"f", 0},     {longest, 0xF}};
  inventory luns;
  EXPECT_EQ(load(file(text), &luns), 0);
  EXPECT_EQ(luns, expected);
  EXPECT_TRUE(captured_syslog().lines().empty());
}

TEST_F(Standin, ABadFileFailsAsAWholeWithOneLine) {
  const std::string too_long = R"({"wwn": ")" + std::string(4395, 'x') + R"("})";
  // The document, or the second object of its list.
  const std::pair<std::string, std::string> documents[] = {
      {"", "no JSON found"},
      {"{", "JSON"},
      {R"({"storage_objects": [)", "JSON"},
      {"[]", "not an object"},
      {"{}", "no array storage_objects"},
      {R"({"storage_objects": {}})", "no array storage_objects"},
  };
  const std::pair<std::string, std::string> objects[] = {
      {"", "JSON"},
      {R"("text")", "storage_objects[1]: is not an object"},
      {R"({"wwn": "\ud800"})", "string"},
      {R"({"name": "x"})", "[1]: has no wwn"},
      {R"({"wwn": 5})", "[1]: wwn is not a string"},
      {R"({"wwn": "a\u0000b"})", "[1]: wwn holds a NUL"},
      {too_long, "[1]: wwn is longer"},
      {R"({"wwn": "a", "type_flags": -1})", "out of range"},
      {R"({"wwn": "a", "type_flags": 4294967296})", "out of range"},
      {R"({"wwn": "a", "type_flags": 18446744073709551615})", "out of range"},
      {R"({"wwn": "a", "type_flags": "0x100000000"})", "out of range"},
      {R"({"wwn": "a", "type_flags": "0x"})", "not a hexadecimal"},
      {R"({"wwn": "a", "type_flags": "0x1g"})", "not a hexadecimal"},
      {R"({"wwn": "a", "type_flags": "15"})", "neither an integer nor"},
      {R"({"wwn": "a", "type_flags": 1.5})", "neither an integer nor"},
  };
  const auto expect_failure = [](const std::string& path, const std::string& reason) {
    SCOPED_TRACE(reason);
    inventory luns;
    EXPECT_NE(load(path, &luns), 0);
    EXPECT_TRUE(luns.empty());
    const auto lines = captured_syslog().lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].priority, 3);
    EXPECT_NE(lines[0].text.find(path + ": "), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].text.find(reason), std::string::npos) << lines[0];
  };
  for (const auto& [text, reason] : documents) expect_failure(file(text), reason);
  for (const auto& [text, reason] : objects) {
    expect_failure(file(R"({"storage_objects": [{"wwn": "good"}, )" + text + "]}"), reason);
  }
  for (const std::string path : {"/", "/none"}) expect_failure(path, "");
}

}  // namespace
}  // namespace vexo::test

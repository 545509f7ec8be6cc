#include "lun_group.h"

#include <google/protobuf/struct.pb.h>
#include <google/protobuf/util/json_util.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <set>
#include <system_error>

#include "common/command_fields.h"
#include "common/errors.h"
#include "common/output.h"
#include "common/whole_file.h"
#include "report.pb.h"

namespace vexo::tools {

namespace {

using google::protobuf::util::JsonStringToMessage;

[[noreturn]] void refuse_file(const std::string& file, const std::string& reason) {
  throw tool_error({exit_code::usage, "--group " + file, reason,
                    "write a JSON array with an object for each LUN: "
                    "[{\"src_lun_p80\": \"...\"}, {\"src_lun_p80\": \"...\"}]"});
}

// `complaint` is the JSON library's, of two lines: the reason, and the place in the text.
std::string in_one_line(const std::string& complaint) {
  const auto end = std::min(complaint.find('\n'), complaint.size());
  const auto place = complaint.substr(end, complaint.find('\n', end + 1) - end);
  return complaint.substr(0, end) + (place.size() > 1 ? " Near: " + place.substr(1) : "");
}

GroupLun as_message(const handshake& lun) {
  GroupLun message;
  message.set_src_lun_uuid(lun.uuid);
  message.set_src_lun_p80(lun.p80);
  message.set_src_lun_p83(lun.p83);
  message.set_dst_lun_uuid(lun.dst_uuid);
  message.set_dst_lun_p80(lun.dst_p80);
  message.set_dst_lun_p83(lun.dst_p83);
  message.set_is_for_replica(lun.replica);
  return message;
}

handshake as_handshake(const GroupLun& message) {
  handshake lun;
  lun.uuid = message.src_lun_uuid();
  lun.p80 = message.src_lun_p80();
  lun.p83 = message.src_lun_p83();
  lun.dst_uuid = message.dst_lun_uuid();
  lun.dst_p80 = message.dst_lun_p80();
  lun.dst_p83 = message.dst_lun_p83();
  lun.replica = message.is_for_replica();
  return lun;
}

// Whether the variable has the same value for all LUNs of a run.
bool is_same_for_all(const std::string& name) {
  return name == "VEXO_COMMAND" || name == "VEXO_CMD_SN" || name == "VEXO_QEL_SN";
}

std::vector<std::string> environment_of(const handshake& lun) {
  std::vector<std::string> variables = command_environment(lun.init_snapshot());
  variables.push_back("VEXO_DST_LUN_P80=" + lun.dst_p80);
  variables.push_back("VEXO_DST_LUN_P83=" + lun.dst_p83);
  return variables;
}

}  // namespace

lun_group read_lun_group(const std::string& file) {
  std::string text;
  try {
    text = read_file(file);
  } catch (const std::system_error& error) {
    throw tool_error({exit_code::failed, "--group " + file, error.code().message(),
                      "name a file that can be read"});
  }
  if (text.find_first_not_of(" \t\r\n") != text.find('[')) refuse_file(file, "it is no JSON array");
  google::protobuf::ListValue array;
  if (const auto status = JsonStringToMessage(text, &array); !status.ok()) {
    refuse_file(file, in_one_line(std::string(status.message())));
  }
  lun_group luns;
  std::set<std::string> known;
  for (const auto& value : array.values()) {
    const std::string place = "luns[" + std::to_string(luns.size()) + "]: ";
    GroupLun lun;
    if (!value.has_struct_value()) refuse_file(file, place + "it is no object");
    if (const auto status = JsonStringToMessage(to_json(value).str(), &lun); !status.ok()) {
      refuse_file(file, place + in_one_line(std::string(status.message())));
    }
    if (lun.src_lun_p80().empty()) refuse_file(file, place + "src_lun_p80 is missing");
    if (!known.insert(lun.src_lun_p80()).second) {
      refuse_file(file, place + "the LUN " + lun.src_lun_p80() + " is there already");
    }
    luns.push_back(as_handshake(lun));
  }
  if (luns.empty()) refuse_file(file, "the array is empty");
  return luns;
}

std::vector<std::string> group_environment(const lun_group& luns) {
  std::vector<std::string> variables = environment_of(luns.front());
  if (luns.size() == 1) return variables;
  std::vector<std::vector<std::string>> of_each;
  std::transform(luns.begin(), luns.end(), std::back_inserter(of_each), environment_of);
  for (std::size_t i = 0; i < variables.size(); ++i) {
    const auto equals = variables[i].find('=');
    const std::string name = variables[i].substr(0, equals);
    if (is_same_for_all(name)) continue;
    std::string values;
    for (const auto& own : of_each) {
      const std::string value = own[i].substr(equals + 1);
      values += (values.empty() ? "" : " ") + (value.empty() ? "-" : value);
    }
    variables[i] = name;
    variables[i].append("=").append(values);
  }
  return variables;
}

group_file::group_file(const lun_group& luns) {
  const char* const folder = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
  path_ = std::string(folder == nullptr || *folder == '\0' ? "/tmp" : folder) + "/lun_group.XXXXXX";
  const int fd = mkstemp(path_.data());
  if (fd < 0) throw std::system_error(errno, std::generic_category(), path_);
  close(fd);
  std::ofstream file(path_);
  for (const auto& lun : luns) {
    file << (&lun == &luns.front() ? "[" : ",\n ") << to_json(as_message(lun)).str();
  }
  file << "]\n";
  file.close();
  if (!file) {
    const int error = errno;
    unlink(path_.c_str());
    throw std::system_error(error, std::generic_category(), path_);
  }
}

group_file::~group_file() { unlink(path_.c_str()); }

}  // namespace vexo::tools

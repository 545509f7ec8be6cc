// A libvexoiscsiep.so.6 for machines without the appliance. The LUNs come from a JSON file in the
// form in which Linux target administration tools save their configuration:
//
//   {"storage_objects": [{"wwn": "<LUN identifier>", "type_flags": "0x10F", ...}, ...], ...}
//
// `type_flags` is our own addition; every other member is ignored. The file is read anew by each
// load and nothing is kept between loads, so an edit shows at once and threads share nothing.

#include <simdjson.h>
#include <syslog.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "vexo_iscsi_ep.h"

namespace {

namespace dom = simdjson::dom;

constexpr char kConfVariable[] = "VEXO_ISCSI_CONF";
constexpr char kDefaultConf[] = "/etc/vexo/iscsi_luns.json";
constexpr std::uint32_t kDefaultTypeFlags = 0xF;  // a plain LUN: target tools write no flags

using lun_list = std::vector<std::unique_ptr<tag_iscsi_lun_>>;

// Why a load failed, as text for the log; empty when it succeeded.
using failure = std::string;

failure read_identifier(const dom::object& object, tag_iscsi_lun_* lun) {
  const auto member = object["wwn"];
  if (member.error() != simdjson::SUCCESS) return "has no wwn";
  std::string_view wwn;
  if (member.get(wwn) != simdjson::SUCCESS) return "wwn is not a string";
  if (wwn.size() >= sizeof lun->identifier) return "wwn is longer than a LUN record can hold";
  if (wwn.find('\0') != std::string_view::npos) return "wwn holds a NUL character";
  std::memcpy(lun->identifier, wwn.data(), wwn.size());
  return {};
}

failure read_type_flags(const dom::object& object, tag_iscsi_lun_* lun) {
  const auto member = object["type_flags"];
  if (member.error() == simdjson::NO_SUCH_FIELD) {
    lun->type_flags = kDefaultTypeFlags;
    return {};
  }
  std::uint64_t number = 0;
  if (member.get(number) == simdjson::SUCCESS) {
    if (number > std::numeric_limits<std::uint32_t>::max()) return "type_flags is out of range";
    lun->type_flags = static_cast<std::uint32_t>(number);
    return {};
  }
  if (member.is_int64()) return "type_flags is out of range";
  std::string_view text;
  if (member.get(text) != simdjson::SUCCESS || !text.starts_with("0x")) {
    return "type_flags is neither an integer nor a \"0x...\" string";
  }
  text.remove_prefix(2);
  const auto [end, error] =
      std::from_chars(text.data(), text.data() + text.size(), lun->type_flags, 16);
  if (error == std::errc::result_out_of_range) return "type_flags is out of range";
  if (error != std::errc() || end != text.data() + text.size()) {
    return "type_flags is not a hexadecimal number";
  }
  return {};
}

failure read_luns(const char* path, lun_list* luns) {
  dom::parser parser;
  dom::element document;
  if (const auto error = parser.load(path).get(document)) return simdjson::error_message(error);
  dom::object root;
  if (document.get(root) != simdjson::SUCCESS) return "the document is not an object";
  dom::array storage_objects;
  if (root["storage_objects"].get(storage_objects) != simdjson::SUCCESS) {
    return "has no array storage_objects";
  }
  for (const auto element : storage_objects) {
    auto lun = std::make_unique<tag_iscsi_lun_>();
    dom::object object;
    failure why;
    if (element.get(object) != simdjson::SUCCESS) {
      why = "is not an object";
    } else {
      why = read_identifier(object, lun.get());
      if (why.empty()) why = read_type_flags(object, lun.get());
    }
    if (!why.empty()) return "storage_objects[" + std::to_string(luns->size()) + "]: " + why;
    luns->push_back(std::move(lun));
  }
  return {};
}

// Hands the record over to the list; VEXOiSCSIConfFree takes it back.
void append(list_head* list, std::unique_ptr<tag_iscsi_lun_> lun) {
  list_head* const link = &lun.release()->link;
  link->next = list;
  link->prev = list->prev;
  list->prev->next = link;
  list->prev = link;
}

}  // namespace

int VEXOiSCSIConfGet(load_request* /*request*/, conf_holder* holder, list_head* /*third*/,
                     list_head* /*second*/) {
  // Nothing in the process changes its environment. NOLINTNEXTLINE(concurrency-mt-unsafe)
  const char* path = std::getenv(kConfVariable);
  if (path == nullptr) path = kDefaultConf;
  try {
    lun_list luns;
    const failure why = read_luns(path, &luns);
    if (why.empty()) {
      for (auto& lun : luns) append(&holder->luns, std::move(lun));
      return 0;
    }
    syslog(LOG_ERR, "libvexoiscsiep stand-in: %s: %s", path, why.c_str());
  } catch (const std::exception& error) {
    syslog(LOG_ERR, "libvexoiscsiep stand-in: %s: %s", path, error.what());
  }
  return -1;
}

void VEXOiSCSIConfFree(conf_holder* holder) {
  // The stand-in fills only this list. The head of a zero-filled holder has null links.
  list_head* const head = &holder->luns;
  list_head* link = head->next;
  while (link != nullptr && link != head) {
    list_head* const next = link->next;
    delete reinterpret_cast<tag_iscsi_lun_*>(reinterpret_cast<char*>(link) -
                                             offsetof(tag_iscsi_lun_, link));
    link = next;
  }
  head->next = head;
  head->prev = head;
}

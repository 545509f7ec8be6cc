#include "plugin_agent/vpd_pages.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace vexo::tools {

namespace {

constexpr std::size_t kHeader = 4;  // of a page, and of a descriptor in page 83h
constexpr unsigned kBinary = 1;     // the code set
constexpr unsigned kUuid = 0xA;     // the type whose first two bytes are no part of it

// By the number in the descriptor, from 0.
constexpr std::array kTypes = {"vendor",     "T10", "EUI-64", "NAA",  "relative port", "port group",
                               "unit group", "MD5", "name",   "port", "UUID"};
constexpr std::array kAssociations = {"LUN", "port", "target", "reserved"};

unsigned byte_at(std::string_view text, std::size_t place) {
  return static_cast<unsigned char>(text[place]);
}

// What the header says the page has, as far as it is there.
std::string_view body_of(std::string_view page, unsigned code, std::string& problem) {
  if (page.size() < kHeader || byte_at(page, 1) != code) {
    problem = "is no such page";
    return {};
  }
  const std::size_t length = byte_at(page, 2) << 8 | byte_at(page, 3);
  page.remove_prefix(kHeader);
  if (length > page.size()) problem = "is cut short";
  return page.substr(0, length);
}

std::string trimmed(std::string_view text) {
  constexpr std::string_view kPadding(" \0", 2);
  const auto first = text.find_first_not_of(kPadding);
  if (first == std::string_view::npos) return {};
  return std::string(text.substr(first, text.find_last_not_of(kPadding) - first + 1));
}

std::string in_hex(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    text += {kDigits[byte_at(bytes, i) >> 4], kDigits[byte_at(bytes, i) & 0xF]};
  }
  return text;
}

}  // namespace

std::string decode_page_80(std::string_view page, std::string& problem) {
  return trimmed(body_of(page, 0x80, problem));
}

std::vector<designator> decode_page_83(std::string_view page, std::string& problem) {
  std::vector<designator> found;
  for (auto rest = body_of(page, 0x83, problem); !rest.empty();) {
    if (rest.size() < kHeader || rest.size() - kHeader < byte_at(rest, 3)) {
      problem = "is cut short";
      break;
    }
    const unsigned code_set = byte_at(rest, 0) & 0xF;
    const unsigned type = byte_at(rest, 1) & 0xF;
    const std::size_t length = byte_at(rest, 3);
    std::string_view id = rest.substr(kHeader, length);
    if (type == kUuid) id.remove_prefix(std::min<std::size_t>(2, id.size()));
    found.push_back({type < kTypes.size() ? kTypes[type] : "type " + std::to_string(type),
                     kAssociations[byte_at(rest, 1) >> 4 & 3],
                     code_set == kBinary ? in_hex(id) : trimmed(id)});
    rest.remove_prefix(kHeader + length);
  }
  return found;
}

const designator* best_designator(const std::vector<designator>& all) {
  for (const char* const type : {"NAA", "EUI-64", "UUID", "name", "T10"}) {
    const auto found = std::find_if(all.begin(), all.end(), [&](const designator& one) {
      return one.association == kAssociations[0] && one.type == type && !one.id.empty();
    });
    if (found != all.end()) return &*found;
  }
  return nullptr;
}

}  // namespace vexo::tools

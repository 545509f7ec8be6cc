#include "common/output.h"

#include <google/protobuf/util/json_util.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>

#include "common/errors.h"

namespace vexo::tools {

namespace {

// Length of the well-formed UTF-8 sequence that `text` begins with, 0 when there is none.
std::size_t utf8_length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned char lead = byte(0);
  const std::size_t length = lead < 0x80   ? 1
                             : lead < 0xC2 ? 0
                             : lead < 0xE0 ? 2
                             : lead < 0xF0 ? 3
                             : lead < 0xF5 ? 4
                                           : 0;
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
  }
  // Overlong forms, surrogates and what lies beyond U+10FFFF show in the second byte.
  if (length >= 3) {
    const unsigned char second = byte(1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) {
      return 0;
    }
  }
  return length;
}

// C0 and C1 controls and DEL.
bool is_control(std::string_view sequence) {
  const auto first = static_cast<unsigned char>(sequence[0]);
  if (sequence.size() == 1) return first < 0x20 || first == 0x7F;
  return first == 0xC2 && static_cast<unsigned char>(sequence[1]) < 0xA0;
}

std::size_t width(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

std::string to_json(const google::protobuf::Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(message, &json, options);
  if (!status.ok()) {
    throw tool_error({exit_code::failed, "writing the answer as JSON", status.ToString(),
                      "ask again with -o table"});
  }
  return json;
}

bool is_lively(int fd) {
  const char* const no_color = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  return isatty(fd) == 1 && (no_color == nullptr || *no_color == '\0');
}

std::string printable(std::string_view text) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = utf8_length(text);
    const std::string_view sequence = text.substr(0, std::max<std::size_t>(length, 1));
    if (length > 0 && !is_control(sequence)) {
      shown += sequence;
    } else {
      for (const char c : sequence) {
        const auto byte = static_cast<unsigned char>(c);
        shown += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
      }
    }
    text.remove_prefix(sequence.size());
  }
  return shown;
}

void table::add(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = cell.empty() ? "\"\"" : printable(cell);
  rows_.push_back(std::move(cells));
}

std::string table::text() const {
  std::vector<std::size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  std::string text;
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - width(row[i]) + 2, ' ');
    }
    text += '\n';
  }
  return text;
}

void print(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) {
    return;
  }
  throw tool_error({exit_code::failed, "writing to standard output",
                    std::generic_category().message(errno), "see where the output goes"});
}

}  // namespace vexo::tools

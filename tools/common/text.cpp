#include "common/text.h"

#include <simdjson.h>

#include <algorithm>
#include <cstddef>
#include <utility>

namespace vexo::tools {

namespace {

// Length of the valid UTF-8 sequence that `text`, which is not empty, begins with; 0 without one.
std::size_t utf8_length(std::string_view text) {
  const auto lead = static_cast<unsigned char>(text[0]);
  const std::size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
  return length <= text.size() && simdjson::validate_utf8(text.data(), length) ? length : 0;
}

// The character that a valid sequence encodes.
char32_t decoded(std::string_view sequence) {
  const auto lead = static_cast<unsigned char>(sequence[0]);
  char32_t character = sequence.size() == 1 ? lead : lead & (0x7FU >> sequence.size());
  for (const char c : sequence.substr(1)) {
    character = character << 6 | (static_cast<unsigned char>(c) & 0x3FU);
  }
  return character;
}

// C0 and C1 controls and DEL; line and paragraph separators; the marks, embeddings, overrides and
// isolates of bidirectional text.
bool is_control(char32_t c) {
  return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x2028 && c <= 0x202E) || c == 0x061C ||
         c == 0x200E || c == 0x200F || (c >= 0x2066 && c <= 0x2069);
}

}  // namespace

bool is_utf8(std::string_view text) { return simdjson::validate_utf8(text); }

shown_text printable(std::string_view text) {
  constexpr char kHex[] = "0123456789abcdef";
  std::string shown;
  while (!text.empty()) {
    const std::size_t length = utf8_length(text);
    const std::string_view sequence = text.substr(0, std::max<std::size_t>(length, 1));
    if (length > 0 && !is_control(decoded(sequence))) {
      shown += sequence;
    } else {
      for (const char c : sequence) {
        const auto byte = static_cast<unsigned char>(c);
        shown += {'\\', 'x', kHex[byte >> 4], kHex[byte & 0xF]};
      }
    }
    text.remove_prefix(sequence.size());
  }
  return already_escaped(std::move(shown));
}

shown_text already_escaped(std::string text) {
  shown_text shown;
  shown.text_ = std::move(text);
  return shown;
}

}  // namespace vexo::tools

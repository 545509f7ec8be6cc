#include "common/text.h"

#include <algorithm>
#include <cstddef>
#include <utility>

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

// The character that a well-formed sequence stands for.
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

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = utf8_length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

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

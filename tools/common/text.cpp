#include "common/text.h"

#include <algorithm>
#include <cstddef>

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

}  // namespace

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const std::size_t length = utf8_length(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
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

}  // namespace vexo::tools

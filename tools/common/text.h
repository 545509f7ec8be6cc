#ifndef TOOLS_COMMON_TEXT_H_
#define TOOLS_COMMON_TEXT_H_

#include <concepts>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace vexo::tools {

// Whether all of it is valid UTF-8, as every string on the wire has to be.
bool is_utf8(std::string_view text);

// Text without control characters: it cannot change a terminal or begin a new line of a log.
// Everything that people are shown has this type. A std::string may come from anywhere (the wire, a
// file's name, the environment), and becomes this type by printable() only.
class shown_text {
 public:
  shown_text() = default;
  template <std::size_t N>
  shown_text(const char (&literal)[N])
      : text_(literal) {}  // NOLINT(*-explicit-*): a literal is safe
  template <std::size_t N>
  shown_text(char (&buffer)[N]) = delete;

  shown_text& operator+=(const shown_text& more) {
    text_ += more.text_;
    return *this;
  }
  friend shown_text operator+(shown_text a, const shown_text& b) { return std::move(a += b); }
  // Together with a std::string it is unchecked text again.
  template <std::same_as<std::string> String>
  friend std::string operator+(const String& a, const shown_text& b) {
    return a + b.text_;
  }
  friend bool operator==(const shown_text&, const shown_text&) = default;
  friend std::ostream& operator<<(std::ostream& out, const shown_text& text) {
    return out << text.text_;
  }

  const std::string& str() const { return text_; }
  operator const std::string&() const { return text_; }  // NOLINT(*-explicit-*): it is valid text
  const char* c_str() const { return text_.c_str(); }
  bool empty() const { return text_.empty(); }

 private:
  friend shown_text printable(std::string_view text);
  friend shown_text already_escaped(std::string text);

  std::string text_;
};

// Writes as \xNN: control characters, characters that change the direction of writing, line
// separators and invalid UTF-8. Its result passes through it unchanged.
shown_text printable(std::string_view text);

// For text that a formatter has made of escaped parts, as the lines of a table, or JSON.
shown_text already_escaped(std::string text);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_TEXT_H_

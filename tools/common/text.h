#ifndef TOOLS_COMMON_TEXT_H_
#define TOOLS_COMMON_TEXT_H_

#include <concepts>
#include <cstddef>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>

namespace vexo::tools {

// Well-formed throughout, which every string on the wire has to be.
bool is_utf8(std::string_view text);

// Text that can steer neither a terminal nor whoever reads a log line by line. What people are
// shown takes this type only; a std::string, which may have come from anywhere (the wire, a file's
// name, the environment), becomes it by printable() alone.
class shown_text {
 public:
  shown_text() = default;
  template <std::size_t N>
  shown_text(const char (&literal)[N]) : text_(literal) {}  // NOLINT(*-explicit-*): says itself
  template <std::size_t N>
  shown_text(char (&buffer)[N]) = delete;

  shown_text& operator+=(const shown_text& more) {
    text_ += more.text_;
    return *this;
  }
  friend shown_text operator+(shown_text a, const shown_text& b) { return std::move(a += b); }
  // What is put together with a std::string may be anything again.
  template <std::same_as<std::string> String>
  friend std::string operator+(const String& a, const shown_text& b) {
    return a + b.text_;
  }
  friend bool operator==(const shown_text&, const shown_text&) = default;
  friend std::ostream& operator<<(std::ostream& out, const shown_text& text) {
    return out << text.text_;
  }

  const std::string& str() const { return text_; }
  operator const std::string&() const { return text_; }  // NOLINT(*-explicit-*): loses nothing
  const char* c_str() const { return text_.c_str(); }
  bool empty() const { return text_.empty(); }

 private:
  friend shown_text printable(std::string_view text);
  friend shown_text already_escaped(std::string text);

  std::string text_;
};

// Control characters, what turns the direction of writing, line separators and broken UTF-8 become
// \xNN. Twice does no harm.
shown_text printable(std::string_view text);

// For what a formatter has made of escaped parts: lines of a table, JSON.
shown_text already_escaped(std::string text);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_TEXT_H_

#include "common/help_text.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <sstream>
#include <string_view>
#include <vector>

namespace vexo::tools {

namespace {

constexpr std::size_t kDescriptions = 30;  // the column in which CLI11 begins them

// `line` broken into lines of at most `width` columns. All but the first begin with `indent`
// spaces.
std::string in_pieces(std::string line, std::size_t width, std::size_t indent) {
  std::string text;
  while (line.size() > width) {
    // What is in front of the text, spaces too, belongs to the first word.
    const auto begin = line.find_first_not_of(' ', indent);
    auto end = line.rfind(' ', width);
    if (end == line.npos || begin == line.npos || end < begin) end = line.find(' ', begin);
    if (end == line.npos) break;
    text += line.substr(0, end) + "\n";
    line = std::string(indent, ' ') + line.substr(end + 1);
  }
  return text + line + "\n";
}

bool is_heading(std::string_view line) { return !line.starts_with(' ') && line.ends_with(':'); }

// Lines that form one text. The first may begin with the option that the text describes, in the
// columns before `indent`.
class paragraph {
 public:
  paragraph(std::size_t width, std::size_t indent) : width_(width), indent_(indent) {}
  bool empty() const { return lines_.empty(); }
  void add(const std::string& line) { lines_.push_back(line); }
  // Empties it.
  std::string take() {
    const bool fits = std::all_of(lines_.begin(), lines_.end(),
                                  [&](const auto& line) { return line.size() <= width_; });
    std::string text;
    for (const auto& line : lines_) {
      if (fits) {
        text += line + "\n";
      } else {
        text += text.empty() ? line : " " + line.substr(indent_);
      }
    }
    lines_.clear();
    return fits ? text : in_pieces(text, width_, indent_);
  }

 private:
  const std::size_t width_;
  const std::size_t indent_;
  std::vector<std::string> lines_;
};

// In a list of options or verbs: whether the line continues the description above it.
bool goes_on(std::string_view line) { return line.find_first_not_of(' ') == kDescriptions; }
bool has_description(std::string_view line) {
  return line.size() > kDescriptions && line.substr(0, kDescriptions).ends_with("  ") &&
         line[kDescriptions] != ' ';
}

}  // namespace

std::string wrapped_help(const std::string& help, std::size_t width) {
  std::istringstream lines(help);
  std::string text;
  paragraph prose(width, 0);
  paragraph description(width, kDescriptions);
  bool in_example = false;
  for (std::string line; std::getline(lines, line);) {
    const bool begins_example = line.starts_with("Example");
    if (is_heading(line) || begins_example) in_example = begins_example;
    const bool is_prose = !line.empty() && !line.starts_with(' ') && !is_heading(line);
    if (!is_prose || line.starts_with("Usage:")) text += prose.take();
    if (description.empty() || !goes_on(line)) text += description.take();
    if (is_prose) {
      prose.add(line);
    } else if (!in_example && width > 2 * kDescriptions && has_description(line)) {
      description.add(line);
    } else {
      text += line + "\n";
    }
  }
  return text + description.take() + prose.take();
}

std::size_t terminal_width() {
  winsize size = {};
  const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return is_known ? size.ws_col : 100;
}

}  // namespace vexo::tools

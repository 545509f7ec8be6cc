#ifndef TOOLS_COMMON_HELP_TEXT_H_
#define TOOLS_COMMON_HELP_TEXT_H_

#include <CLI/CLI.hpp>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace vexo::tools {

// The --help of a program in lines of at most `width` columns: prose is filled anew where a line is
// too long, descriptions of options go on in their own column, examples stay as they are.
std::string wrapped_help(const std::string& help, std::size_t width);

// Columns of the terminal on stdout. Without a terminal, as for a pager, 100.
std::size_t terminal_width();

// What is wrong with a command line, without the parser's "1 required ... missing".
inline std::string parser_complaint(const CLI::ParseError& error) {
  std::string text = error.what();
  const std::string_view count = ": 1 required ";
  const std::string_view missing = " missing";
  const auto at = text.find(count);
  if (at == text.npos || !text.ends_with(missing)) return text;
  const auto value = at + count.size();
  return text.substr(0, at) + " needs a value, " +
         text.substr(value, text.size() - value - missing.size());
}

// Makes --help fit the terminal, also that of verbs that are added later.
inline void wrap_help(CLI::App& app) {
  class formatter : public CLI::Formatter {
    std::string make_help(const CLI::App* of, std::string name,
                          CLI::AppFormatMode mode) const override {
      return wrapped_help(CLI::Formatter::make_help(of, std::move(name), mode), terminal_width());
    }
  };
  app.formatter(std::make_shared<formatter>());
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_HELP_TEXT_H_

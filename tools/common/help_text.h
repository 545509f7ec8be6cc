#ifndef TOOLS_COMMON_HELP_TEXT_H_
#define TOOLS_COMMON_HELP_TEXT_H_

#include <CLI/CLI.hpp>
#include <cstddef>
#include <memory>
#include <string>

namespace vexo::tools {

// The --help of a program in lines of at most `width` columns: prose is filled anew where a line is
// too long, descriptions of options go on in their own column, examples stay as they are.
std::string wrapped_help(const std::string& help, std::size_t width);

// Columns of the terminal on stdout. Without a terminal, as for the programs that read --help, more
// than any line has.
std::size_t terminal_width();

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

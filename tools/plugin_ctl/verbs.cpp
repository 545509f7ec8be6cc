#include "verbs.h"

#include <utility>

#include "common/text.h"

namespace vexo::tools {

namespace {

std::string indented(const std::string& lines) {
  std::string text = "  ";
  for (const char c : lines) {
    text += c;
    if (c == '\n') text += "  ";
  }
  return text;
}

std::string refuse_bad_utf8(const std::string& text) {
  return is_utf8(text) ? "" : "the text is not well-formed UTF-8";
}

}  // namespace

CLI::App* add_verb(CLI::App& parent, session& with, const std::string& name,
                   const std::string& description, const std::string& example,
                   std::function<exit_code()> run) {
  CLI::App* const verb = parent.add_subcommand(name, description);
  verb->footer("Global options, as -t, --timeout and -o: plugin_ctl --help\n\nExample:\n" +
               indented(example));
  verb->callback([&with, run = std::move(run)] { with.action = run; });
  return verb;
}

CLI::Option* add_text(CLI::App& verb, const std::string& name, std::string& value,
                      const std::string& description) {
  return verb.add_option(name, value, description)->check(CLI::Validator(refuse_bad_utf8, ""));
}

CLI::Option* add_text(CLI::App& verb, const std::string& name, std::vector<std::string>& values,
                      const std::string& description) {
  return verb.add_option(name, values, description)
      ->allow_extra_args(false)  // one value for each time the option is given
      ->check(CLI::Validator(refuse_bad_utf8, ""));
}

}  // namespace vexo::tools

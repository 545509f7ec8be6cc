#ifndef TOOLS_PLUGIN_AGENT_OPTIONS_FILE_H_
#define TOOLS_PLUGIN_AGENT_OPTIONS_FILE_H_

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>

#include "common/number_option.h"

namespace vexo::tools {

// The type name of the options that take a number; the file must not hold a string for them.
inline constexpr char kSeconds[] = "SECONDS";

// Adds an option that takes seconds, and sets `time`.
inline void add_seconds(CLI::App& app, const std::string& name, std::chrono::milliseconds& time,
                        double least, double most, const std::string& description) {
  const auto set = [&time](double seconds) {
    time = std::chrono::milliseconds(std::llround(seconds * 1000));
  };
  app.add_option_function<double>(name, set, description)
      ->check(number_between(least, most))
      ->type_name(kSeconds)
      ->default_str(std::to_string(time.count() / 1000));
}

// The TOML file of --config: options by their long names without the dashes.
class options_file {
 public:
  // Reads the file, and gives the options of `app` that the command line does not have their
  // values. Throws std::invalid_argument, "FILE:LINE: why" or "FILE cannot be read: why".
  void read(const std::string& path, CLI::App& app);

  // `what`, which begins with the name of an option ("--lun is empty"), with the place in the file
  // before it when the value is from there, and with the file alone when the option is given
  // nowhere. Unchanged when no file was read, or when the value is from the command line.
  std::string located(const std::string& what, const CLI::App& app) const;

 private:
  std::string path_;
  std::map<std::string, std::uint32_t> lines_;  // of the options set by read(), "--lun"
};

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_OPTIONS_FILE_H_

#include "plugin_agent/options_file.h"

#include <toml++/toml.h>

#include <array>
#include <charconv>
#include <exception>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include "common/whole_file.h"

namespace vexo::tools {

namespace {

std::string place(const std::string& path, std::uint32_t line) {
  return path + ":" + std::to_string(line) + ": ";
}

std::string contents(const std::string& path) {
  try {
    return read_file(path);
  } catch (const std::system_error& error) {
    throw std::invalid_argument(path + " cannot be read: " + error.code().message());
  }
}

// The value as the command line would have it. Throws std::invalid_argument for another type.
std::string word(const std::string& key, const toml::node& value, const CLI::Option& option) {
  std::string_view wanted = "a string";
  if (option.get_items_expected_max() == 0) {
    if (const auto* const flag = value.as_boolean()) return flag->get() ? "true" : "false";
    wanted = "true or false";
  } else if (option.get_type_name().starts_with(kSeconds)) {
    if (value.is_number()) {
      std::array<char, 32> digits = {};
      const double number = *value.value<double>();
      return {digits.data(), std::to_chars(digits.begin(), digits.end(), number).ptr};
    }
    wanted = "a number";
  } else if (const auto* const text = value.as_string()) {
    return text->get();
  }
  std::ostringstream why;
  why << key << " must be " << wanted << ", not of type " << value.type();
  throw std::invalid_argument(why.str());
}

}  // namespace

void options_file::read(const std::string& path, CLI::App& app) {
  path_ = path;
  toml::table table;
  try {
    table = toml::parse(contents(path), path);
  } catch (const toml::parse_error& error) {
    throw std::invalid_argument(place(path, error.source().begin.line) + error.what() +
                                "; text stands in quotes, as in lun = [\"ID\"]");
  }
  for (const auto& [toml_key, value] : table) {
    const std::string key(toml_key.str());
    std::uint32_t line = value.source().begin.line;
    try {
      if (value.is_table()) {
        throw std::invalid_argument("\"" + key + "\" is a section; options stand outside sections");
      }
      auto* const option = app.get_option_no_throw("--" + key);
      if (option == nullptr || !option->get_configurable()) {
        throw std::invalid_argument("no option is called \"" + key + "\"");
      }
      std::vector<std::string> words;
      if (const auto* const list = value.as_array(); list && option->get_expected_max() > 1) {
        for (const auto& element : *list) {
          line = element.source().begin.line;
          words.push_back(word(key, element, *option));
        }
      } else {
        words.push_back(word(key, value, *option));
      }
      if (option->count() > 0 || words.empty()) continue;
      option->add_result(std::move(words));
      option->run_callback();
      lines_["--" + key] = value.source().begin.line;
    } catch (const std::exception& error) {
      throw std::invalid_argument(place(path, line) + error.what());
    }
  }
}

std::string options_file::located(const std::string& what, const CLI::App& app) const {
  const std::string name = what.substr(0, what.find_first_of(" :"));
  if (const auto line = lines_.find(name); line != lines_.end()) {
    return place(path_, line->second) + what;
  }
  const auto* const option = path_.empty() ? nullptr : app.get_option_no_throw(name);
  return option == nullptr || option->count() > 0 ? what : path_ + ": " + what;
}

}  // namespace vexo::tools

#ifndef TOOLS_COMMON_NUMBER_OPTION_H_
#define TOOLS_COMMON_NUMBER_OPTION_H_

#include <CLI/CLI.hpp>
#include <charconv>
#include <limits>
#include <sstream>
#include <string>

namespace vexo::tools {

// For an option's check(): a number from `least` to `most`, both included. CLI11's own range check
// accepts "nan".
inline CLI::Validator number_between(double least, double most) {
  std::ostringstream range;
  range.precision(std::numeric_limits<double>::digits10);  // 2592000, not 2.592e+06
  range << least << " to " << most;
  return {[least, most, text = range.str()](const std::string& given) -> std::string {
            double number = 0;
            const auto* const end = given.data() + given.size();
            const auto [rest, error] = std::from_chars(given.data(), end, number);
            if (error == std::errc() && rest == end && number >= least && number <= most) return "";
            return "\"" + given + "\" is no number from " + text;
          },
          "[" + range.str() + "]"};
}

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_NUMBER_OPTION_H_

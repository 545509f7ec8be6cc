#ifndef TOOLS_COMMON_TEXT_H_
#define TOOLS_COMMON_TEXT_H_

#include <string>
#include <string_view>

namespace vexo::tools {

// Well-formed throughout, which every string on the wire has to be.
bool is_utf8(std::string_view text);

// Foreign text for a terminal: control characters and broken UTF-8 become \xNN, so that a name
// sent by a host cannot steer the screen it is shown on.
std::string printable(std::string_view text);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_TEXT_H_

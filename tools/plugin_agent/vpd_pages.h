#ifndef TOOLS_PLUGIN_AGENT_VPD_PAGES_H_
#define TOOLS_PLUGIN_AGENT_VPD_PAGES_H_

#include <string>
#include <string_view>
#include <vector>

namespace vexo::tools {

// One identification descriptor of VPD page 83h.
struct designator {
  std::string type;         // "NAA", "EUI-64", "T10", "name", "UUID", "vendor", ...
  std::string association;  // "LUN", "port" or "target": what it identifies
  std::string id;           // hexadecimal in lower case, or text as the device writes it
};

// Both functions take the bytes of a page as the device has sent them, with the header, and check
// each length in them. Of an incomplete page they return what is there, and set `problem` to a
// phrase.

// The unit serial number of page 80h, without blanks and zeros around it.
std::string decode_page_80(std::string_view page, std::string& problem);

// The descriptors of page 83h, in the device's order.
std::vector<designator> decode_page_83(std::string_view page, std::string& problem);

// The one that names the LUN best, or null: an NAA, else an EUI-64, a UUID, a name, a T10 string.
const designator* best_designator(const std::vector<designator>& all);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_AGENT_VPD_PAGES_H_

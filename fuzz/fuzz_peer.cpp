// The peer string, as gRPC prints it, whatever it may print: compared with a reading of our own.

#include <cctype>
#include <string>
#include <string_view>

#include "peer_address.h"
#include "target.h"

namespace {

// "ipv4:", 1 to 63 characters but ':', ':', white space, a sign, a digit; up to the first NUL.
std::string expected(const std::string& peer) {
  std::string_view rest = peer.c_str();
  constexpr std::string_view kPrefix = "ipv4:";
  if (!rest.starts_with(kPrefix)) return "Unknown";
  rest.remove_prefix(kPrefix.size());
  const std::size_t length = rest.find(':');
  if (length == std::string_view::npos || length == 0 || length > 63) return "Unknown";
  const std::string_view address = rest.substr(0, length);
  rest.remove_prefix(length + 1);
  while (!rest.empty() && std::isspace(static_cast<unsigned char>(rest[0])) != 0) {
    rest.remove_prefix(1);
  }
  if (!rest.empty() && (rest[0] == '+' || rest[0] == '-')) rest.remove_prefix(1);
  const bool has_port = !rest.empty() && std::isdigit(static_cast<unsigned char>(rest[0])) != 0;
  return has_port ? std::string(address) : "Unknown";
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string peer(reinterpret_cast<const char*>(data), size);
  EXPECT_EQ(vexo::scsiplugin::peer_ipv4(peer), expected(peer)) << peer;
  return 0;
}

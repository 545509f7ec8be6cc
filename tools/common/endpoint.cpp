#include "common/endpoint.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <stdexcept>
#include <string_view>

namespace vexo::tools {

namespace {

[[noreturn]] void refuse(const std::string& text, const std::string& why) {
  throw std::invalid_argument("\"" + text + "\" is no endpoint: " + why +
                              "; use unix:///path, HOST or HOST:PORT");
}

std::uint16_t parse_port(const std::string& text, std::string_view digits) {
  std::uint16_t port = 0;
  const auto* const end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, port);
  if (error != std::errc() || rest != end || port == 0) {
    refuse(text, "the port must be a number from 1 to 65535");
  }
  return port;
}

template <class Address>
bool is_address(int address_family, const std::string& text) {
  Address address = {};
  return inet_pton(address_family, text.c_str(), &address) == 1;
}

bool is_host_name(std::string_view name) {
  constexpr std::string_view kAllowed =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
  return !name.empty() && name.find_first_not_of(kAllowed) == std::string_view::npos;
}

endpoint unix_endpoint(const std::string& text) {
  std::string path = text.substr(std::string_view("unix:").size());
  if (path.starts_with("//")) {
    path.erase(0, 2);
    if (!path.starts_with('/')) refuse(text, "the path after unix:// must be absolute");
  }
  if (path.empty()) refuse(text, "the path of the socket is missing");
  endpoint parsed;
  parsed.kind = endpoint::family::unix_socket;
  parsed.text = text;
  parsed.target = "unix:" + path;
  return parsed;
}

}  // namespace

endpoint parse_endpoint(const std::string& text) {
  if (text.starts_with("unix:")) return unix_endpoint(text);

  endpoint parsed;
  parsed.port = kDefaultPort;
  const auto colons = std::count(text.begin(), text.end(), ':');
  if (text.starts_with('[')) {
    const auto close = text.find(']');
    if (close == std::string::npos) refuse(text, "the bracket is not closed");
    parsed.host = text.substr(1, close - 1);
    const std::string_view rest = std::string_view(text).substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') refuse(text, "only a port may follow the bracket");
      parsed.port = parse_port(text, rest.substr(1));
    }
  } else if (colons == 1) {
    const auto colon = text.find(':');
    parsed.host = text.substr(0, colon);
    parsed.port = parse_port(text, std::string_view(text).substr(colon + 1));
  } else {
    parsed.host = text;
  }

  const std::string port = std::to_string(parsed.port);
  if (text.starts_with('[') || colons > 1) {
    if (!is_address<in6_addr>(AF_INET6, parsed.host)) refuse(text, "that is no IPv6 address");
    parsed.kind = endpoint::family::ipv6;
    parsed.text = "[" + parsed.host + "]:" + port;
  } else {
    if (text.starts_with('/')) refuse(text, "a socket is named by unix://" + text);
    if (!is_host_name(parsed.host)) refuse(text, "that is no host name or address");
    const bool is_ipv4 = is_address<in_addr>(AF_INET, parsed.host);
    parsed.kind = is_ipv4 ? endpoint::family::ipv4 : endpoint::family::host_name;
    parsed.text = parsed.host + ":" + port;
  }
  parsed.target = "dns:///" + parsed.text;
  return parsed;
}

}  // namespace vexo::tools

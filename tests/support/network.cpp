#include "network.h"

#include <gtest/gtest.h>

#include <sstream>

namespace vexo::test {

namespace {

void ip(const std::string& arguments) {
  words command = {"ip"};
  std::istringstream in(arguments);
  for (std::string word; in >> word;) command.push_back(word);
  const auto ended = run(command);
  EXPECT_EQ(ended.status, 0) << "ip " << arguments << ": " << ended.err;
}

}  // namespace

routed_network::routed_network() {
  ip("netns add router");
  ip("netns add host");
  ip("link add to_router type veth peer name to_appliance netns router");
  ip("link add to_host netns router type veth peer name to_router netns host");
  ip(std::string("addr add ") + kApplianceAddress + "/24 dev to_router");
  ip("-n router addr add 10.77.0.2/24 dev to_appliance");
  ip("-n router addr add 10.78.0.2/24 dev to_host");
  ip("-n host addr add 10.78.0.1/24 dev to_router");
  ip("link set to_router up");
  ip("-n router link set to_appliance up");
  ip("-n router link set to_host up");
  ip("-n host link set to_router up");
  ip("route add 10.78.0.0/24 via 10.77.0.2");
  ip("-n host route add 10.77.0.0/24 via 10.78.0.2");
  forward(true);
}

routed_network::~routed_network() {
  ip("netns del host");
  ip("netns del router");
}

void routed_network::forward(bool on) {
  const std::string write =
      std::string("echo ") + (on ? "1" : "0") + " >/proc/sys/net/ipv4/ip_forward";
  const auto ended = run({"ip", "netns", "exec", "router", "sh", "-c", write});
  EXPECT_EQ(ended.status, 0) << ended.err;
}

}  // namespace vexo::test

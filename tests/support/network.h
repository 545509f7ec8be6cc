#ifndef TESTS_SUPPORT_NETWORK_H_
#define TESTS_SUPPORT_NETWORK_H_

#include <string>

#include "program.h"

namespace vexo::test {

// A host that is reached through a router: two more network namespaces, in a row behind the
// sandbox's own, with a veth pair for each of the two links. One at a time; gone at destruction.
// Needs the sandbox, and iproute2.
class routed_network {
 public:
  // What the host knows the sandbox's own namespace by.
  static constexpr char kApplianceAddress[] = "10.77.0.1";

  routed_network();
  ~routed_network();
  routed_network(const routed_network&) = delete;
  routed_network& operator=(const routed_network&) = delete;

  // Put in front of a command line, these run it on the host; its process id stays the same.
  static words on_host() { return {"ip", "netns", "exec", "host"}; }

  // Whether the router lets packets through. When not, it drops them without a word to either side.
  static void forward(bool on);
};

}  // namespace vexo::test

#endif  // TESTS_SUPPORT_NETWORK_H_

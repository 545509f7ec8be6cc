// The load driver: plays hosts and local callers to one or more servers, which take turns, and
// prints a line of JSON for each measure of each round. scripts/bench starts the servers and reads
// the lines.

#include <sys/resource.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "connection.h"
#include "modes.h"

int main(int argc, char** argv) {
  using namespace vexo::bench;
  static const std::map<std::string, decltype(&fanout)> modes = {
      {"fanout", fanout},         {"wake", wake}, {"unary", unary},           {"lookup", lookup},
      {"handshakes", handshakes}, {"hold", hold}, {"reconnects", reconnects},
  };
  const auto mode = argc > 4 ? modes.find(argv[1]) : modes.end();
  if (mode == modes.end()) {
    give_up(
        "usage: load MODE NUMBER ROUNDS SECONDS SERVER...   see modes.h\n"
        "SERVER is NAME=PROTOCOL:PORT:PID; PROTOCOL is grpc, or for fanout and hold also mqtt or "
        "nats");
  }
  const rlimit files = {16384, 16384};
  setrlimit(RLIMIT_NOFILE, &files);
  mode->second(std::atoi(argv[2]), {std::atoi(argv[3]), std::atof(argv[4])},
               std::vector<server>(argv + 5, argv + argc));
  return 0;
}

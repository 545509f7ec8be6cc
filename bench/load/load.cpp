// The load driver: plays hosts and local callers to one or more servers, which take turns, and
// prints a line of JSON for each figure. scripts/bench starts the servers and reads the lines.

#include <sys/resource.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "connection.h"
#include "modes.h"

namespace {

constexpr char kUsage[] =
    "usage: load fanout|handshakes|lookup NUMBER BLOCKS SECONDS SERVER...\n"
    "       load unary|wake BLOCKS SECONDS SERVER...\n"
    "       load hold NUMBER SERVER...\n"
    "       load reconnects SERVER...\n"
    "       load log_sink\n"
    "SERVER is NAME=PROTOCOL:PORT:PID; PROTOCOL is grpc, or for fanout and hold also mqtt or nats";

}  // namespace

int main(int argc, char** argv) {
  using namespace vexo::bench;
  const rlimit files = {16384, 16384};
  setrlimit(RLIMIT_NOFILE, &files);

  const std::vector<std::string> words(argv + 1, argv + argc);
  std::size_t at = 0;
  const auto next = [&]() -> const std::string& {
    if (at == words.size()) give_up(kUsage);
    return words[at++];
  };
  const auto next_int = [&] { return std::atoi(next().c_str()); };
  const auto next_blocks = [&] {
    const int count = next_int();
    return blocks{count, std::atof(next().c_str())};
  };
  const auto servers = [&] {
    return std::vector<server>(words.begin() + static_cast<std::ptrdiff_t>(at), words.end());
  };

  const std::string& mode = next();
  if (mode == "log_sink") take_log();
  const bool numbered =
      mode == "fanout" || mode == "handshakes" || mode == "lookup" || mode == "hold";
  const int number = numbered ? next_int() : 0;
  if (mode == "hold") {
    hold(number, servers());
  } else if (mode == "reconnects") {
    reconnects(servers());
  } else {
    const blocks how = next_blocks();
    if (mode == "fanout") {
      fanout(number, how, servers());
    } else if (mode == "handshakes") {
      handshakes(number, how, servers());
    } else if (mode == "lookup") {
      lookup(number, how, servers());
    } else if (mode == "unary") {
      unary(how, servers());
    } else if (mode == "wake") {
      wake(how, servers());
    } else {
      give_up(kUsage);
    }
  }
  return 0;
}

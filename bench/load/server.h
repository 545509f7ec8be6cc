#ifndef BENCH_LOAD_SERVER_H_
#define BENCH_LOAD_SERVER_H_

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vexo::bench {

// A server process to be measured, given as NAME=PROTOCOL:PORT:PID.
struct server {
  explicit server(const std::string& text);

  double cpu_seconds() const;  // of all its threads, also of those that have ended
  long status_kib(const std::string& field) const;          // a field of /proc/PID/status
  std::size_t entries(const std::string& directory) const;  // of /proc/PID: "fd", "task"

  std::string name;
  std::string protocol;  // grpc, mqtt or nats
  std::uint16_t port;
  pid_t pid;
};

// Prints what one round has measured, as one line of JSON. `measure`: "fanout/900/last_us".
void print(const server& of, const std::string& measure, const std::vector<double>& samples);

}  // namespace vexo::bench

#endif  // BENCH_LOAD_SERVER_H_

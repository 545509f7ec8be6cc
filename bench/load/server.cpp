#include "server.h"

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "connection.h"

namespace vexo::bench {

server::server(const std::string& text) {
  std::string words = text;
  for (const char mark : {'=', ':'}) std::replace(words.begin(), words.end(), mark, ' ');
  std::istringstream in(words);
  if (!(in >> name >> protocol >> port >> pid)) give_up("not NAME=PROTOCOL:PORT:PID: " + text);
}

double server::cpu_seconds() const {
  clockid_t id = 0;
  timespec time = {};
  if (clock_getcpuclockid(pid, &id) != 0 || clock_gettime(id, &time) != 0) give_up(name + " ended");
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

long server::status_kib(const std::string& field) const {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string word;
  long value = 0;
  while (status >> word) {
    if (word == field + ":" && status >> value) return value;
  }
  give_up(name + " ended");
}

std::size_t server::entries(const std::string& directory) const {
  const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid) + "/" + directory);
  return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

void print(const server& of, const std::string& measure, const std::vector<double>& samples) {
  std::printf(R"({"server": "%s", "measure": "%s", "samples": [)", of.name.c_str(),
              measure.c_str());
  const char* comma = "";
  for (const double sample : samples) {
    std::printf("%s%.6g", comma, sample);
    comma = ", ";
  }
  std::puts("]}");
}

}  // namespace vexo::bench

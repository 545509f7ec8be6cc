#include "gauge.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace vexo::test {

namespace {

namespace fs = std::filesystem;

std::string of_process(pid_t pid, const char* what) {
  return "/proc/" + std::to_string(pid) + "/" + what;
}

std::size_t entries(const std::string& directory) {
  return static_cast<std::size_t>(
      std::distance(fs::directory_iterator(directory), fs::directory_iterator()));
}

}  // namespace

double resident_mib(pid_t pid) {
  std::ifstream in(of_process(pid, "statm"));
  long total = 0;
  long resident = 0;
  in >> total >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024 * 1024);
}

std::size_t threads_of(pid_t pid) { return entries(of_process(pid, "task")); }
std::size_t files_of(pid_t pid) { return entries(of_process(pid, "fd")); }

double cpu_seconds(pid_t pid) {
  std::ifstream in(of_process(pid, "stat"));
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  // Behind the name, which is in parentheses: utime and stime are the 12th and 13th.
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) fields >> skipped;
  double user = 0;
  double system = 0;
  fields >> user >> system;
  return (user + system) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

trend trend_of(const std::vector<double>& values) {
  const auto n = static_cast<double>(values.size());
  const double middle = (n - 1) / 2;
  double mean = 0;
  for (const double value : values) mean += value / n;
  double spread = 0;
  double covariance = 0;
  for (std::size_t i = 0; i < values.size(); ++i) {
    const double x = static_cast<double>(i) - middle;
    spread += x * x;
    covariance += x * (values[i] - mean);
  }
  const double slope = covariance / spread;
  return {slope, slope * (n - 1)};
}

}  // namespace vexo::test

#ifndef TESTS_FAULTS_GAUGE_H_
#define TESTS_FAULTS_GAUGE_H_

#include <sys/types.h>

#include <cstddef>
#include <vector>

namespace vexo::test {

// What a process holds of the machine, from /proc.
double resident_mib(pid_t pid);
std::size_t threads_of(pid_t pid);
std::size_t files_of(pid_t pid);
double cpu_seconds(pid_t pid);

// The straight line with the least squares through values taken at equal intervals.
struct trend {
  double slope;  // per interval
  double rise;   // from the first value to the last
};
trend trend_of(const std::vector<double>& values);

}  // namespace vexo::test

#endif  // TESTS_FAULTS_GAUGE_H_

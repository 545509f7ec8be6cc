#ifndef TOOLS_COMMON_METRICS_H_
#define TOOLS_COMMON_METRICS_H_

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexo::tools {

// Values counted by size, as a Prometheus histogram.
class histogram {
 public:
  // The upper limits of the buckets, ascending; what is larger than all of them counts too.
  explicit histogram(std::vector<double> limits)
      : limits_(std::move(limits)), counts_(limits_.size()) {}
  void observe(double value);

 private:
  friend class metrics_page;
  std::vector<double> limits_;
  std::vector<std::uint64_t> counts_;  // of the values up to each limit
  std::uint64_t count_ = 0;
  double sum_ = 0;
};

using metric_labels = std::vector<std::pair<std::string_view, std::string_view>>;

// Metrics in Prometheus' text format, made anew each time they are written.
class metrics_page {
 public:
  enum class type { counter, gauge, histogram };

  // Begins a family, to which all samples belong until the next one. A counter's name ends in
  // "_total". `help` is one line.
  void family(std::string_view name, type kind, std::string_view help);
  // Label values may be any text.
  void sample(double value, const metric_labels& labels = {});
  void samples(const histogram& values, const metric_labels& labels = {});

  const std::string& text() const { return text_; }

  // Writes the file for a node exporter's textfile folder with replace_file(). The node exporter
  // does not read PATH.tmp.
  void write_to(const std::string& path) const;

 private:
  void line(std::string_view suffix, const metric_labels& labels, double value);

  std::string text_;
  std::string name_;  // of the family
};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_METRICS_H_

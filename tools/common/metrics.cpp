#include "common/metrics.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <initializer_list>

#include "common/text.h"
#include "common/whole_file.h"

namespace vexo::tools {

namespace {

void append(std::string& text, std::initializer_list<std::string_view> parts) {
  for (const auto part : parts) text += part;
}

std::string number(double value) {
  std::array<char, 32> digits = {};
  return {digits.data(), std::to_chars(digits.begin(), digits.end(), value).ptr};
}

}  // namespace

void histogram::observe(double value) {
  for (std::size_t i = 0; i < limits_.size(); ++i) {
    if (value <= limits_[i]) ++counts_[i];
  }
  ++count_;
  sum_ += value;
}

void metrics_page::family(std::string_view name, type kind, std::string_view help) {
  constexpr std::string_view kTypes[] = {"counter", "gauge", "histogram"};
  name_ = name;
  append(text_, {"# HELP ", name, " ", help, "\n# TYPE ", name, " ",
                 kTypes[static_cast<std::size_t>(kind)], "\n"});
}

void metrics_page::sample(double value, const metric_labels& labels) { line("", labels, value); }

void metrics_page::samples(const histogram& values, const metric_labels& labels) {
  metric_labels with_limit = labels;
  auto& limit = with_limit.emplace_back("le", "").second;
  for (std::size_t i = 0; i < values.limits_.size(); ++i) {
    const std::string up_to = number(values.limits_[i]);
    limit = up_to;
    line("_bucket", with_limit, static_cast<double>(values.counts_[i]));
  }
  limit = "+Inf";
  line("_bucket", with_limit, static_cast<double>(values.count_));
  line("_sum", labels, values.sum_);
  line("_count", labels, static_cast<double>(values.count_));
}

void metrics_page::line(std::string_view suffix, const metric_labels& labels, double value) {
  append(text_, {name_, suffix});
  std::string_view before = "{";
  for (const auto& [name, label] : labels) {
    append(text_, {std::exchange(before, ","), name, "=\""});
    const shown_text shown = printable(label);
    for (const char c : shown.str()) {
      if (c == '\\' || c == '"') text_ += '\\';
      text_ += c;
    }
    text_ += '"';
  }
  append(text_, {labels.empty() ? "" : "}", " ", number(value), "\n"});
}

void metrics_page::write_to(const std::string& path) const { replace_file(path, text_); }

}  // namespace vexo::tools

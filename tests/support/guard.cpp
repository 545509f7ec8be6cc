#include "guard.h"

#include <algorithm>
#include <filesystem>
#include <regex>

namespace vexo::test {

void Guard::TearDown() {
  guard.reset();
  supervised.reset();
  std::filesystem::remove(kStatusFile);
  PluginAgent::TearDown();
}

void Guard::start_supervisor(const daemon_options& how) {
  supervised = std::make_unique<supervisor>(log.get(), how);
  call = std::make_unique<caller>(vexo::test::connect(kUnixTarget));
}

void Guard::start_guard(words options, bool serves) {
  words line = ctl({"guard", "--status-file", kStatusFile});
  line.insert(line.end(), options.begin(), options.end());
  guard = std::make_unique<program>(line);
  ASSERT_TRUE(guard->wait_for_err(serves ? "the daemon serves on both endpoints" : "guarding:"))
      << guard->err();
}

ended_program Guard::guard_status() {
  return run(ctl({"-o", "json", "guard-status", "--status-file", kStatusFile}));
}

words Guard::ctl(words arguments) {
  arguments.insert(arguments.begin(), PLUGIN_CTL);
  return arguments;
}

void Guard::expect_restarts(int times) const {
  EXPECT_EQ(supervised->restarts(), times) << guard->err();
}

bool wait_until(const std::function<bool()>& reached, std::chrono::seconds patience) {
  const auto deadline = std::chrono::steady_clock::now() + patience;
  while (!reached()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

double seconds_since(std::chrono::steady_clock::time_point then) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - then).count();
}

std::vector<double> numbers_in(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  std::vector<double> numbers;
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
    numbers.push_back(std::stod((*match)[1]));
  }
  std::sort(numbers.begin(), numbers.end());
  return numbers;
}

std::string spread(const std::vector<double>& sorted) {
  if (sorted.empty()) return "none";
  const auto text = [](double number) { return std::to_string(number).substr(0, 5); };
  return text(sorted.front()) + " / " + text(sorted[sorted.size() / 2]) + " / " +
         text(sorted.back()) + " (least, median, most of " + std::to_string(sorted.size()) + ")";
}

}  // namespace vexo::test

#include "fault_table.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "sandbox.h"

namespace vexo::test {

row_text& current_row() {
  static row_text row;
  return row;
}

namespace {

using clock = std::chrono::steady_clock;

// A row that takes longer than this hangs.
constexpr std::chrono::minutes kLongestRow{8};
constexpr char kFieldEnd = '\0';

struct row_run {
  std::string name;  // of the test
  pid_t pid = -1;
  int pipe = -1;
  clock::time_point begin;
  std::string received;
  row_text text;
  std::string verdict;
};

std::vector<std::string> selected_tests() {
  const auto& all = *testing::UnitTest::GetInstance();
  const std::string filter = testing::GTEST_FLAG(filter);
  std::vector<std::string> names;
  for (int i = 0; i < all.total_test_suite_count(); ++i) {
    const auto& suite = *all.GetTestSuite(i);
    for (int j = 0; j < suite.total_test_count(); ++j) {
      const std::string name = std::string(suite.name()) + "." + suite.GetTestInfo(j)->name();
      if (filter == "*" || filter.find(name) != std::string::npos) names.push_back(name);
    }
  }
  return names;
}

// The child: runs one test, and sends its columns to the parent.
[[noreturn]] void run_row(const row_run& row, int to, const std::string& output) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  dup2(file, STDOUT_FILENO);
  dup2(file, STDERR_FILENO);
  testing::GTEST_FLAG(filter) = row.name;
  const std::string missing = enter_sandbox();
  int result = 2;
  if (missing.empty()) {
    result = RUN_ALL_TESTS();
  } else {
    current_row().observed = "no sandbox to be had: " + missing;
  }
  for (const auto& field : {current_row().fault, current_row().expected, current_row().observed}) {
    if (write(to, field.c_str(), field.size() + 1) < 0) result = 2;
  }
  std::exit(result);
}

void start_row(row_run* row, const std::string& directory) {
  std::array<int, 2> ends = {};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    std::perror("pipe");
    std::exit(2);
  }
  row->begin = clock::now();
  std::cout.flush();
  row->pid = fork();
  if (row->pid == 0) run_row(*row, ends[1], directory + "/" + row->name + ".log");
  close(ends[1]);
  row->pipe = ends[0];
}

// Reads what has come; true when the row has ended.
bool advance(row_run* row) {
  std::array<char, 4096> buffer = {};
  pollfd news = {row->pipe, POLLIN, 0};
  while (poll(&news, 1, 0) > 0) {
    const ssize_t size = read(row->pipe, buffer.data(), buffer.size());
    if (size <= 0) break;
    row->received.append(buffer.data(), static_cast<std::size_t>(size));
  }
  if (clock::now() - row->begin > kLongestRow) kill(row->pid, SIGKILL);
  int status = 0;
  if (waitpid(row->pid, &status, WNOHANG) == 0) return false;
  close(row->pipe);
  std::istringstream fields(row->received);
  std::getline(fields, row->text.fault, kFieldEnd);
  std::getline(fields, row->text.expected, kFieldEnd);
  std::getline(fields, row->text.observed, kFieldEnd);
  if (row->text.fault.empty()) row->text.fault = row->name;
  row->verdict = WIFEXITED(status) && WEXITSTATUS(status) == 0 ? "pass" : "FAIL";
  return true;
}

std::vector<std::string> wrapped(const std::string& text, std::size_t width) {
  std::istringstream in(text);
  std::vector<std::string> lines(1);
  for (std::string word; in >> word;) {
    if (!lines.back().empty() && lines.back().size() + 1 + word.size() > width)
      lines.emplace_back();
    if (!lines.back().empty()) lines.back() += ' ';
    lines.back() += word;
  }
  return lines;
}

void print_row(std::ostream& out, const std::vector<std::string>& columns) {
  constexpr std::array<std::size_t, 4> kWidths = {30, 38, 46, 4};
  std::vector<std::vector<std::string>> cells;
  std::size_t height = 0;
  for (std::size_t i = 0; i < kWidths.size(); ++i) {
    cells.push_back(wrapped(columns[i], kWidths[i]));
    height = std::max(height, cells.back().size());
  }
  for (std::size_t line = 0; line < height; ++line) {
    std::string text;
    for (std::size_t i = 0; i < kWidths.size(); ++i) {
      std::string cell = line < cells[i].size() ? cells[i][line] : "";
      cell.resize(std::max(cell.size(), kWidths[i]), ' ');
      text += cell + "  ";
    }
    text.erase(text.find_last_not_of(' ') + 1);
    out << text << "\n";
  }
  out << "\n";
}

void write_markdown(const std::vector<row_run>& rows, const std::string& path) {
  std::ofstream out(path);
  out << "| Fault | Must happen | Observed | |\n|---|---|---|---|\n";
  for (const auto& row : rows) {
    out << "| " << row.text.fault << " | " << row.text.expected << " | " << row.text.observed
        << " | " << row.verdict << " |\n";
  }
}

}  // namespace

int run_table(const std::string& markdown, int jobs) {
  const std::string directory = std::filesystem::absolute(markdown).parent_path();
  std::filesystem::create_directories(directory);
  std::vector<row_run> rows;
  for (auto& name : selected_tests()) rows.emplace_back().name = std::move(name);
  std::vector<row_run*> running;
  std::size_t started = 0;
  while (started < rows.size() || !running.empty()) {
    while (started < rows.size() && running.size() < static_cast<std::size_t>(jobs)) {
      start_row(&rows[started], directory);
      running.push_back(&rows[started++]);
    }
    std::erase_if(running, [](row_run* row) {
      if (!advance(row)) return false;
      const auto took = std::chrono::duration_cast<std::chrono::seconds>(clock::now() - row->begin);
      std::cerr << row->verdict << "  " << row->name << "  " << took.count() << " s\n";
      return true;
    });
    poll(nullptr, 0, 20);
  }

  print_row(std::cout, {"FAULT", "MUST HAPPEN", "OBSERVED", ""});
  bool all_passed = !rows.empty();
  for (const auto& row : rows) {
    print_row(std::cout, {row.text.fault, row.text.expected, row.text.observed, row.verdict});
    if (row.verdict == "pass") continue;
    all_passed = false;
    std::cout << "  see " << directory << "/" << row.name << ".log\n\n";
  }
  write_markdown(rows, markdown);
  std::cout << "as Markdown: " << markdown << "\n";
  return all_passed ? 0 : 1;
}

}  // namespace vexo::test

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  if (argc > 2 && std::strcmp(argv[1], "--table") == 0) return vexo::test::run_table(argv[2], 3);
  return vexo::test::run_sandboxed_tests(argc, argv);
}

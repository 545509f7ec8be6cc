#ifndef TESTS_FAULTS_FAULT_TABLE_H_
#define TESTS_FAULTS_FAULT_TABLE_H_

#include <string>

namespace vexo::test {

// One row's columns but for the verdict.
struct row_text {
  std::string fault;
  std::string expected;
  std::string observed;
};

// Of the test that runs in this process.
row_text& current_row();

// Runs every row that the filter lets through, each in a process and a sandbox of its own, a few at
// a time; prints the table, and writes it as Markdown to `markdown`. What the rows print goes to
// files beside it. Returns the program's exit code: 0 when every row passed.
int run_table(const std::string& markdown, int jobs);

}  // namespace vexo::test

#endif  // TESTS_FAULTS_FAULT_TABLE_H_

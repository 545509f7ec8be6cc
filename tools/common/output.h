#ifndef TOOLS_COMMON_OUTPUT_H_
#define TOOLS_COMMON_OUTPUT_H_

#include <google/protobuf/message.h>

#include <cstddef>
#include <string>
#include <vector>

#include "common/text.h"

namespace vexo::tools {

enum class output_format { table, json };

// One line without a newline. Members are named as in the schema, and zero values are included.
shown_text to_json(const google::protobuf::Message& message);

// Whether text on this descriptor may use escape sequences: it is a terminal, and NO_COLOR is unset
// or empty.
bool takes_escapes(int fd);

// Columns for people.
class table {
 public:
  explicit table(std::vector<std::string> headings) : rows_{std::move(headings)} {}

  // As many cells as headings. Each is shown as printable() makes it, an empty one as "".
  void add(std::vector<std::string> cells);
  std::size_t size() const { return rows_.size() - 1; }
  // Every line ends with a newline.
  shown_text text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// Writes to stdout and flushes. Throws tool_error when that fails (closed pipe, full disk), so that
// no incomplete result ends with exit code 0. SIGPIPE has to be ignored.
void print(const shown_text& text);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_OUTPUT_H_

#ifndef TOOLS_COMMON_OUTPUT_H_
#define TOOLS_COMMON_OUTPUT_H_

#include <google/protobuf/message.h>

#include <cstddef>
#include <string>
#include <vector>

#include "common/text.h"

namespace vexo::tools {

enum class output_format { table, json };

// One line without a newline: members named as in the schema, zero values included, and text as the
// JSON library escapes it.
shown_text to_json(const google::protobuf::Message& message);

// Whether colour, moving lines and repainting are welcome on this descriptor: a terminal, and
// NO_COLOR unset or empty.
bool is_lively(int fd);

// Columns for people.
class table {
 public:
  explicit table(std::vector<std::string> headings) : rows_{std::move(headings)} {}

  // As many cells as headings. They are shown through printable(), an empty one as "".
  void add(std::vector<std::string> cells);
  std::size_t size() const { return rows_.size() - 1; }
  // Every line ends with a newline.
  shown_text text() const;

 private:
  std::vector<std::vector<std::string>> rows_;
};

// Writes to stdout and flushes. Throws tool_error when stdout takes no more (closed pipe, full
// disk), so that nobody mistakes half a result for a whole one.
void print(const shown_text& text);

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_OUTPUT_H_

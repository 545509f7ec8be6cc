#include "common/output.h"

#include <google/protobuf/util/json_util.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <system_error>
#include <utility>

#include "common/errors.h"

namespace vexo::tools {

namespace {

std::size_t width(std::string_view text) {
  return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

}  // namespace

shown_text to_json(const google::protobuf::Message& message) {
  google::protobuf::util::JsonPrintOptions options;
  options.preserve_proto_field_names = true;
  options.always_print_primitive_fields = true;
  std::string json;
  const auto status = google::protobuf::util::MessageToJsonString(message, &json, options);
  if (!status.ok()) {
    throw tool_error({exit_code::failed, "writing the answer as JSON", status.ToString(),
                      "ask again with -o table"});
  }
  return already_escaped(std::move(json));
}

bool takes_escapes(int fd) {
  const char* const no_color = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe)
  return isatty(fd) == 1 && (no_color == nullptr || *no_color == '\0');
}

void table::add(std::vector<std::string> cells) {
  for (std::string& cell : cells) cell = cell.empty() ? "\"\"" : printable(cell).str();
  rows_.push_back(std::move(cells));
}

shown_text table::text() const {
  std::vector<std::size_t> widths(rows_.front().size());
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], width(row[i]));
  }
  std::string text;
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] - width(row[i]) + 2, ' ');
    }
    text += '\n';
  }
  return already_escaped(std::move(text));
}

void print(const shown_text& shown) {
  const std::string& text = shown;
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0) {
    return;
  }
  throw tool_error({errno == EPIPE ? exit_code::closed_pipe : exit_code::failed,
                    "writing to standard output", std::generic_category().message(errno),
                    "see where the output goes"});
}

}  // namespace vexo::tools

#include "plugin_freezer/agent_connection.h"

#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <iostream>

#include "common/journal.h"
#include "common/text.h"
#include "plugin_freezer/packets.h"

namespace vexo::tools {

agent_connection::~agent_connection() { std::cerr << lines_ << std::flush; }

void agent_connection::send(const FreezerReport& report) {
  if (socket_ >= 0) send_packet(socket_, report);
}

void agent_connection::write_line(const std::string& text, bool is_error) {
  if (socket_ < 0) {
    lines_ += journal_prefix(is_error ? LOG_ERR : LOG_WARNING) +
              "plugin_freezer: " + printable(text).str() + "\n";
    return;
  }
  FreezerReport report;
  report.mutable_line()->set_is_error(is_error);
  report.mutable_line()->set_text(text);
  send(report);
}

std::optional<FreezerRequest> agent_connection::receive(bool& closed) {
  FreezerRequest request;
  const packet got = receive_packet(socket_, request);
  if (got == packet::received) return request;
  if (got == packet::closed) closed = true;
  return std::nullopt;
}

}  // namespace vexo::tools

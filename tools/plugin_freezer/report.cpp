#include "plugin_freezer/report.h"

#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <iostream>

#include "common/journal.h"
#include "common/text.h"
#include "plugin_freezer/packets.h"

namespace vexo::tools {

reporter::~reporter() { std::cerr << lines_ << std::flush; }

void reporter::send(const FreezerReport& report) {
  if (socket_ >= 0) send_packet(socket_, report);
}

void reporter::say(const std::string& text, bool is_error) {
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

std::optional<FreezerRequest> reporter::receive(bool& closed) {
  FreezerRequest request;
  switch (receive_packet(socket_, request)) {
    case packet::received:
      return request;
    case packet::none:
      return std::nullopt;
    case packet::closed:
      break;
  }
  closed = true;
  return std::nullopt;
}

}  // namespace vexo::tools

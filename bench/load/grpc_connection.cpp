#include "grpc_connection.h"

#include <algorithm>
#include <utility>

namespace vexo::bench {

namespace {

enum frame_type { kData, kHeaders, kPriority, kReset, kSettings, kPush, kPing, kGoAway, kWindow };
constexpr int kEndStream = 1;
constexpr int kAck = 1;
constexpr int kEndHeaders = 4;

std::string number(std::uint32_t value, int bytes) {
  std::string text;
  for (int i = bytes - 1; i >= 0; --i) text.push_back(static_cast<char>(value >> (8 * i)));
  return text;
}

std::uint32_t number_at(std::string_view text, std::size_t at, int bytes) {
  std::uint32_t value = 0;
  for (int i = 0; i < bytes; ++i) value = value << 8 | static_cast<unsigned char>(text[at + i]);
  return value;
}

std::string frame(frame_type type, int flags, std::uint32_t id, const std::string& payload) {
  return number(static_cast<std::uint32_t>(payload.size()), 3) + static_cast<char>(type) +
         static_cast<char>(flags) + number(id, 4) + payload;
}

}  // namespace

grpc_connection::grpc_connection(std::uint16_t port) : connection(port) {
  constexpr std::uint32_t kInitialWindowSize = 4;
  constexpr std::uint32_t kWindow = 0x7fffffff;  // so large that it needs no updates
  send("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" +
       frame(kSettings, 0, 0, number(kInitialWindowSize, 2) + number(kWindow, 4)) +
       frame(frame_type::kWindow, 0, 0, number(kWindow - 65535, 4)));
}

void grpc_connection::call(const std::string& method, const std::string& request,
                           on_message message, on_end end) {
  const std::uint32_t id = std::exchange(next_id_, next_id_ + 2);
  streams_[id] = {std::move(message), std::move(end), {}};
  std::string headers = "\x83\x86";  // :method POST, :scheme http
  headers += header(":path", "/vexo.scsiplugin.PluginService/" + method);
  headers += header(":authority", "localhost");
  headers += header("content-type", "application/grpc");
  headers += header("te", "trailers");
  send(frame(kHeaders, kEndHeaders, id, headers) +
       frame(kData, kEndStream, id,
             '\0' + number(static_cast<std::uint32_t>(request.size()), 4) + request));
}

std::string grpc_connection::ask(const std::string& method, const std::string& request) {
  std::string last;
  bool ended = false;
  call(
      method, request, [&last](const std::string& message) { last = message; },
      [&ended] { ended = true; });
  run_until([&ended] { return ended; });
  return last;
}

// A name and value are sent once, and as an index from then on, as by any client.
std::string grpc_connection::header(const std::string& name, const std::string& value) {
  constexpr std::size_t kStaticTable = 61;
  std::string literal;
  for (const auto& text : {name, value}) literal += static_cast<char>(text.size()) + text;
  const auto known = std::find(header_table_.begin(), header_table_.end(), literal);
  if (known != header_table_.end()) {
    const auto index = kStaticTable + 1 + static_cast<std::size_t>(known - header_table_.begin());
    return {static_cast<char>(0x80 | index)};
  }
  header_table_.push_front(literal);
  return '\x40' + literal;
}

std::size_t grpc_connection::take(std::string_view bytes) {
  constexpr std::size_t kHead = 9;
  std::size_t taken = 0;
  while (bytes.size() - taken >= kHead) {
    const std::size_t size = number_at(bytes, taken, 3);
    if (bytes.size() - taken < kHead + size) break;
    take_frame(bytes[taken + 3], bytes[taken + 4], number_at(bytes, taken + 5, 4) & 0x7fffffff,
               bytes.substr(taken + kHead, size));
    taken += kHead + size;
  }
  return taken;
}

void grpc_connection::take_frame(int type, int flags, std::uint32_t id, std::string_view payload) {
  switch (type) {
    case kSettings:
      if ((flags & kAck) == 0) send(frame(kSettings, kAck, 0, {}));
      return;
    case kPing:
      if ((flags & kAck) == 0) send(frame(kPing, kAck, 0, std::string(payload)));
      return;
    case kGoAway:
      give_up("the server ended a connection: " + std::string(payload.substr(8)));
    case kReset:  // gRPC's server may send one after the end
      if (!streams_.contains(id)) return;
      give_up("the server ended a call: error " + std::to_string(number_at(payload, 0, 4)));
    case kData:
    case kHeaders: {
      stream& of = streams_[id];
      if (type == kData) take_data(&of, payload);
      if ((flags & kEndStream) == 0) return;
      const on_end end = std::move(of.end);
      streams_.erase(id);
      end();
      return;
    }
    default:
      return;
  }
}

void grpc_connection::take_data(stream* of, std::string_view payload) {
  constexpr std::size_t kPrefix = 5;
  of->data += payload;
  while (of->data.size() >= kPrefix && of->data.size() - kPrefix >= number_at(of->data, 1, 4)) {
    const std::size_t size = number_at(of->data, 1, 4);
    of->message(of->data.substr(kPrefix, size));
    of->data.erase(0, kPrefix + size);
  }
}

}  // namespace vexo::bench

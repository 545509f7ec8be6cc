#include "brokers.h"

#include <charconv>

namespace vexo::bench {

namespace {

constexpr char kCmdTopic[] = "cmd";
constexpr char kAnswerTopic[] = "answer";

class mqtt_connection : public broker_connection {
 public:
  mqtt_connection(std::uint16_t port, int number, const std::string& topic)
      : broker_connection(port) {
    constexpr char kConnect = 0x10;
    constexpr char kSubscribe = '\x82';
    const std::string level_4_clean_session_no_keep_alive("\x04\x02\x00\x00", 4);
    send(packet(kConnect, text("MQTT") + level_4_clean_session_no_keep_alive +
                              text("host-" + std::to_string(number))));
    send(packet(kSubscribe, std::string("\x00\x01", 2) + text(topic) + '\0'));
  }

  void publish(const std::string& topic, const std::string& message) override {
    constexpr char kPublish = 0x30;
    send(packet(kPublish, text(topic) + message));
  }

 private:
  static std::string text(const std::string& value) {
    return std::string(1, '\0') + static_cast<char>(value.size()) + value;
  }
  static std::string packet(char type, const std::string& body) {
    std::string length;
    for (std::size_t rest = body.size(); rest > 0 || length.empty(); rest >>= 7) {
      length += static_cast<char>((rest & 0x7f) | (rest > 0x7f ? 0x80 : 0));
    }
    return type + length + body;
  }

  std::size_t take(std::string_view bytes) override {
    std::size_t taken = 0;
    for (;;) {
      std::size_t at = taken + 1;
      std::size_t size = 0;
      bool more = true;
      for (int shift = 0; more && at < bytes.size(); shift += 7) {
        const auto digit = static_cast<unsigned char>(bytes[at++]);
        size |= static_cast<std::size_t>(digit & 0x7f) << shift;
        more = digit >= 0x80;
      }
      if (more || bytes.size() - at < size) return taken;
      switch (static_cast<unsigned char>(bytes[taken]) >> 4) {
        case 2:  // CONNACK
          if (bytes[at + 1] != 0) give_up("the MQTT broker refuses connections");
          break;
        case 3:  // PUBLISH
          on_message();
          break;
        case 9:  // SUBACK
          ready = true;
          break;
        default:
          give_up("an unexpected MQTT packet");
      }
      taken = at + size;
    }
  }
};

class nats_connection : public broker_connection {
 public:
  nats_connection(std::uint16_t port, int /*number*/, const std::string& topic)
      : broker_connection(port) {
    send("CONNECT {\"verbose\":false,\"pedantic\":false}\r\nSUB " + topic + " 1\r\nPING\r\n");
  }

  void publish(const std::string& topic, const std::string& message) override {
    send("PUB " + topic + " " + std::to_string(message.size()) + "\r\n" + message + "\r\n");
  }

 private:
  std::size_t take(std::string_view bytes) override {
    constexpr std::string_view kNewline = "\r\n";
    std::size_t taken = 0;
    for (;;) {
      const std::size_t end = bytes.find(kNewline, taken);
      if (end == std::string_view::npos) return taken;
      const std::string_view line = bytes.substr(taken, end - taken);
      std::size_t next = end + kNewline.size();
      if (line.starts_with("MSG ")) {
        const std::string_view digits = line.substr(line.rfind(' ') + 1);
        std::size_t size = 0;
        std::from_chars(digits.data(), digits.data() + digits.size(), size);
        next += size + kNewline.size();
        if (next > bytes.size()) return taken;
        on_message();
      } else if (line == "PING") {
        send("PONG\r\n");
      } else if (line == "PONG") {
        ready = true;
      } else if (line.starts_with("-ERR")) {
        give_up("NATS: " + std::string(line));
      }
      taken = next;
    }
  }
};

std::unique_ptr<broker_connection> connect_to(const server& at, int number,
                                              const std::string& topic) {
  std::unique_ptr<broker_connection> made;
  if (at.protocol == "mqtt") {
    made = std::make_unique<mqtt_connection>(at.port, number, topic);
  } else {
    made = std::make_unique<nats_connection>(at.port, number, topic);
  }
  connection::run_until([&made] { return made->ready; });
  return made;
}

}  // namespace

broker_subscribers::broker_subscribers(const server& at, int hosts)
    : local_(connect_to(at, -1, kAnswerTopic)) {
  local_->on_message = [this] { released = true; };
  for (int i = 0; i < hosts; ++i) {
    hosts_.push_back(connect_to(at, i, kCmdTopic));
    hosts_.back()->on_message = [this] { ++delivered; };
  }
}

// The sizes of the daemon's messages.
void broker_subscribers::announce() { local_->publish(kCmdTopic, std::string(84, 'x')); }
void broker_subscribers::answer() { hosts_[0]->publish(kAnswerTopic, std::string(42, 'x')); }

}  // namespace vexo::bench

#ifndef BENCH_LOAD_BROKERS_H_
#define BENCH_LOAD_BROKERS_H_

#include <memory>
#include <string>
#include <vector>

#include "connection.h"
#include "subscribers.h"

namespace vexo::bench {

// A client of a message broker: the least of MQTT 3.1.1 (QoS 0) and of NATS's text protocol.
class broker_connection : public connection {
 public:
  using connection::connection;
  virtual void publish(const std::string& topic, const std::string& message) = 0;

  bool ready = false;  // the broker has confirmed the subscription
  std::function<void()> on_message;
};

// Hosts that listen to one topic, and a caller that announces there and waits for the answer on
// another one.
class broker_subscribers : public subscribers {
 public:
  broker_subscribers(const server& at, int hosts);

  void announce() override;
  void answer() override;
  void finish() override {}

 private:
  std::vector<std::unique_ptr<broker_connection>> hosts_;
  std::unique_ptr<broker_connection> local_;
};

}  // namespace vexo::bench

#endif  // BENCH_LOAD_BROKERS_H_

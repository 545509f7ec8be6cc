#ifndef TESTS_FAULTS_RELAY_H_
#define TESTS_FAULTS_RELAY_H_

#include <cstddef>
#include <string>
#include <thread>

namespace vexo::test {

// A wire of the test's own: a port of the loopback interface whose one connection is handed on to
// another port, byte by byte, until the test interferes.
class relay {
 public:
  // What the server sends is taken no faster than `bytes_a_second`; 0 is no limit.
  explicit relay(int server_port, std::size_t bytes_a_second = 0);
  ~relay();
  relay(const relay&) = delete;
  relay& operator=(const relay&) = delete;

  std::string target() const;
  // To the server it looks as if the client will send nothing more, and still reads.
  void shut_towards_server() const;

 private:
  void hand_on();

  const std::size_t bytes_a_second_;
  int port_ = 0;
  int listener_ = -1;
  int client_ = -1;  // set before the thread reads from it
  int server_ = -1;
  std::thread thread_;
};

}  // namespace vexo::test

#endif  // TESTS_FAULTS_RELAY_H_

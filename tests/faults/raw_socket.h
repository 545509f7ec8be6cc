#ifndef TESTS_FAULTS_RAW_SOCKET_H_
#define TESTS_FAULTS_RAW_SOCKET_H_

#include <string>

namespace vexo::test {

// Sockets without a library above them. Each returns a descriptor that the caller closes; none to
// be had fails the test.
int dial_tcp(int port);  // of 127.0.0.1
int dial_unix(const std::string& path);
int listen_on_loopback(int* port);

}  // namespace vexo::test

#endif  // TESTS_FAULTS_RAW_SOCKET_H_

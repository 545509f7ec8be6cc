#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "common/unique_fd.h"

namespace vexo::tools {

void notify_service_manager(const std::string& text) noexcept {
  const char* const name = std::getenv("NOTIFY_SOCKET");  // NOLINT(concurrency-mt-unsafe)
  if (name == nullptr) return;
  const std::string_view path = name;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) return;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (path.front() == '@') address.sun_path[0] = '\0';  // an abstract name
  const unique_fd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sendto(fd.get(), text.data(), text.size(), MSG_NOSIGNAL,
         reinterpret_cast<const sockaddr*>(&address),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size()));
}

}  // namespace vexo::tools

#include "plugin_agent/appliance.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include "common/channel.h"
#include "common/connection.h"
#include "common/poll_until.h"

namespace vexo::tools {

using scsiplugin::PluginService;

namespace {

// The kernel has sent its first packet three times by then, the last after 3 s.
constexpr std::chrono::milliseconds kConnectTime{4000};

std::vector<std::string> ipv4_addresses(const std::string& host) {
  addrinfo wanted = {};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &list); error != 0) {
    throw std::runtime_error("no IPv4 address of " + host + ": " + gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> found(list, freeaddrinfo);
  std::vector<std::string> addresses;
  for (const addrinfo* each = list; each != nullptr; each = each->ai_next) {
    char text[INET_ADDRSTRLEN] = {};
    const auto* const address = reinterpret_cast<const sockaddr_in*>(each->ai_addr);
    inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
    addresses.emplace_back(text);
  }
  return addresses;
}

// A connection that is made; empty, with errno set, when there is none in time.
unique_fd make_connection(const endpoint& where, const event& stop) {
  unique_fd connection = begin_connection(where);
  if (!connection) return connection;
  pollfd watched[] = {{connection.get(), POLLOUT, 0}, {stop.fd(), POLLIN, 0}};
  poll_until(watched, std::chrono::steady_clock::now() + kConnectTime);
  int error = watched[0].revents == 0 ? ETIMEDOUT : 0;
  socklen_t size = sizeof error;
  if (error == 0) getsockopt(connection.get(), SOL_SOCKET, SO_ERROR, &error, &size);
  if (error != 0) connection.reset();
  errno = error;
  return connection;
}

}  // namespace

appliance::appliance(endpoint where) : where_(std::move(where)) {}

appliance::appliance(std::string name, const std::shared_ptr<grpc::Channel>& channel)
    : where_{endpoint::family::host_name, "", 0, std::move(name), ""},
      stub_(PluginService::NewStub(channel)) {}

void appliance::connect(const event& stop) {
  const auto with_port = [&](const std::string& each) {
    return each + ":" + std::to_string(where_.port);
  };
  const std::string former = address();
  auto addresses = ipv4_addresses(where_.host);
  std::stable_partition(addresses.begin(), addresses.end(),
                        [&](const std::string& each) { return with_port(each) == former; });
  std::string failures;
  for (const auto& each : addresses) {
    endpoint numeric = where_;
    numeric.kind = endpoint::family::ipv4;
    numeric.host = each;
    unique_fd connection = make_connection(numeric, stop);
    if (connection) {
      notice_silence(connection.get());
      auto renewed = PluginService::NewStub(make_channel(std::move(connection)));
      const std::lock_guard lock(mutex_);
      stub_ = std::move(renewed);
      address_ = with_port(each);
      return;
    }
    const std::string why = std::generic_category().message(errno);
    failures += failures.empty() ? "" : "; ";
    if (each != where_.host) failures.append(each).append(": ");
    failures += why;
    if (stop.raised()) break;
  }
  throw std::runtime_error("no connection to " + where_.text + ": " + failures);
}

void appliance::lost() {
  ++losses_;
  const std::lock_guard lock(mutex_);
  endpoint numeric = where_;
  numeric.target = "ipv4:" + address_;
  stub_ = PluginService::NewStub(make_channel(numeric));
}

std::shared_ptr<PluginService::Stub> appliance::stub() const {
  const std::lock_guard lock(mutex_);
  return stub_;
}

std::string appliance::address() const {
  const std::lock_guard lock(mutex_);
  return address_.empty() ? where_.text : address_;
}

std::string appliance::name() const {
  const std::lock_guard lock(mutex_);
  if (address_.empty() || address_ == where_.text) return where_.text;
  return address_ + " (" + where_.host + ")";
}

appliance::answer appliance::lun_op(const scsiplugin::LunCmd& request,
                                    std::chrono::milliseconds timeout) const {
  // Declared before the context, so that it releases the channel after the context does: that
  // happens inside gRPC's library, where ThreadSanitizer does not see it.
  const auto daemon = stub();
  grpc::ClientContext context;
  set_timeout(context, timeout);
  scsiplugin::LunCmdResp response;
  answer result;
  result.status = daemon->LunOp(&context, request, &response);
  result.yes = result.status.ok() && response.success();
  return result;
}

}  // namespace vexo::tools

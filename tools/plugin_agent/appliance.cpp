#include "plugin_agent/appliance.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <stdexcept>
#include <utility>

#include "common/channel.h"

namespace vexo::tools {

namespace {

std::string ipv4_address(const std::string& host) {
  addrinfo wanted = {};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  if (const int error = getaddrinfo(host.c_str(), nullptr, &wanted, &list); error != 0) {
    throw std::runtime_error("no IPv4 address of " + host + ": " + gai_strerror(error));
  }
  const std::unique_ptr<addrinfo, void (*)(addrinfo*)> found(list, freeaddrinfo);
  const auto* const address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &address->sin_addr, text, sizeof text);
  return text;
}

}  // namespace

appliance::appliance(endpoint where) : where_(std::move(where)) {}

appliance::appliance(std::string name, const std::shared_ptr<grpc::Channel>& channel)
    : where_{endpoint::family::host_name, "", 0, std::move(name), ""},
      stub_(scsiplugin::PluginService::NewStub(channel)) {}

void appliance::connect() {
  endpoint numeric = where_;
  const std::string address = ipv4_address(where_.host) + ":" + std::to_string(where_.port);
  numeric.target = "ipv4:" + address;
  auto renewed = scsiplugin::PluginService::NewStub(make_channel(numeric));
  const std::lock_guard lock(mutex_);
  stub_ = std::move(renewed);
  address_ = address;
}

std::shared_ptr<scsiplugin::PluginService::Stub> appliance::stub() const {
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
  grpc::ClientContext context;
  set_timeout(context, timeout);
  scsiplugin::LunCmdResp response;
  answer result;
  result.status = stub()->LunOp(&context, request, &response);
  result.yes = result.status.ok() && response.success();
  return result;
}

}  // namespace vexo::tools

// The baseline of the daemon's figures: a server of the same library and schema that does the least
// that the wire asks for, without registry or task table.
//
//   baseline work|bare PORT SOCKET
//
// `work` does what the contract asks for beside the calls themselves: the daemon's log lines, and
// for each subscriber whether its call is alive, and its address as text. `bare` leaves that out.
//
// Hosts and LUNs are known by the number behind the first '-' of their names, so that both are
// found without a table.

#include <grpcpp/grpcpp.h>
#include <syslog.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <semaphore>
#include <string>
#include <string_view>

#include "plugin_service.grpc.pb.h"
#include "vexo_iscsi_ep.h"

namespace {

using namespace vexo::scsiplugin;

bool g_bare = false;

#define BASELINE_LOG(source, line, text, ...)                      \
  do {                                                             \
    if (!g_bare)                                                   \
      syslog(LOG_INFO, "scsi_plugin:%s:%d:%s " text, source, line, \
             __func__ __VA_OPT__(, ) __VA_ARGS__);                 \
  } while (false)

struct host {
  std::atomic<grpc::ServerWriter<PluginCmd>*> writer = nullptr;
  grpc::ServerContext* context = nullptr;
  std::string id;
  std::mutex mutex;  // the one lock: gRPC lets few threads use a call at once, and one write to it
  std::binary_semaphore left{0};
};
std::array<host, 1024> g_hosts;
std::atomic<std::size_t> g_hosts_end = 0;

std::array<std::atomic<int>, 64> g_states;  // of handshakes, with the daemon's numbers

std::size_t number_of(const std::string& id, std::size_t end) {
  return std::strtoul(id.c_str() + id.find('-') + 1, nullptr, 10) % end;
}
host& host_of(const std::string& id) { return g_hosts[number_of(id, g_hosts.size())]; }
std::atomic<int>& state_of(const std::string& id) {
  return g_states[number_of(id, g_states.size())];
}

void move(std::atomic<int>& state, int next) {
  state = next;
  state.notify_all();
}

void wait_for(const std::atomic<int>& state, int target) {
  for (int seen = state; seen != target; seen = state) state.wait(seen);
}

std::string address_of(const grpc::ServerContext& context) {
  char ip[64] = {};
  int port = -1;
  if (std::sscanf(context.peer().c_str(), "ipv4:%63[^:]:%d", ip, &port) != 2) return "Unknown";
  return ip;
}

// Loads the configuration, compares with every LUN up to the one that matches, and frees it again.
bool look_up(const std::string& id) {
  conf_holder conf = {};
  load_request request = {};
  request.what = 0x7000;
  for (list_head* head : {&conf.luns, &conf.second, &conf.third}) head->next = head->prev = head;
  bool found = false;
  if (VEXOiSCSIConfGet(&request, &conf, &conf.third, &conf.second) == 0) {
    for (const list_head* link = conf.luns.next; link != &conf.luns && !found; link = link->next) {
      const char* const record =
          reinterpret_cast<const char*>(link) - offsetof(tag_iscsi_lun_, link);
      found = id == record + offsetof(tag_iscsi_lun_, identifier);
    }
  }
  VEXOiSCSIConfFree(&conf);
  return found;
}

class baseline_service final : public PluginService::Service {
  grpc::Status Subscribe(grpc::ServerContext* context, const PluginClient* request,
                         grpc::ServerWriter<PluginCmd>* writer) override {
    host& self = host_of(request->plugin_id());
    BASELINE_LOG("plugin_service_impl", 32, "Connected: Plugin ID=%s IP=%s",
                 request->plugin_id().c_str(), address_of(*context).c_str());
    self.context = context;
    self.id = request->plugin_id();
    self.writer = writer;
    const std::size_t end = number_of(self.id, g_hosts.size()) + 1;
    for (std::size_t seen = g_hosts_end; seen < end;) g_hosts_end.compare_exchange_weak(seen, end);
    self.left.acquire();
    BASELINE_LOG("plugin_service_impl", 37, "Disconnect: Plugin ID=%s IP=%s",
                 request->plugin_id().c_str(), address_of(*context).c_str());
    return grpc::Status::OK;
  }

  grpc::Status UnSubscribe(grpc::ServerContext*, const PluginClient* request,
                           google::protobuf::Empty*) override {
    host& other = host_of(request->plugin_id());
    if (other.writer.exchange(nullptr) != nullptr) other.left.release();
    return grpc::Status::OK;
  }

  grpc::Status PluginConnList(grpc::ServerContext*, const google::protobuf::Empty*,
                              PluginClientList* response) override {
    for (std::size_t i = 0; i < g_hosts_end; ++i) {
      if (g_hosts[i].writer == nullptr) continue;
      if (!g_bare && g_hosts[i].context->IsCancelled()) continue;
      PluginClient* const entry = response->add_list();
      entry->set_plugin_id(g_hosts[i].id);
      if (!g_bare) entry->set_ip(address_of(*g_hosts[i].context));
    }
    return grpc::Status::OK;
  }

  grpc::Status LunOp(grpc::ServerContext*, const LunCmd* request, LunCmdResp* response) override {
    constexpr char kSource[] = "plugin_server_ctrl";
    response->set_success(true);
    if (request->has_start_mirror_req()) {
      const std::string& id = request->start_mirror_req().src_lun_id();
      BASELINE_LOG(kSource, 122, "Start mirror [%s]", id.c_str());
      move(state_of(id), 2);
    } else if (request->has_depart_relation_req()) {
      const std::string& id = request->depart_relation_req().src_lun_id();
      BASELINE_LOG(kSource, 182, "Depart relation start [%s]", id.c_str());
      move(state_of(id), 4);
    } else if (request->has_is_mirror_done_req()) {
      const std::string& id = request->is_mirror_done_req().src_lun_id();
      BASELINE_LOG(kSource, 144, "Check mirror done [%s]", id.c_str());
      response->set_success(look_up(id) && state_of(id) == 3);
      BASELINE_LOG(kSource, 166, "Check mirror done pass [%s]", id.c_str());
    } else {
      const std::string& id = request->is_lun_support_req().src_lun_id();
      BASELINE_LOG(kSource, 104, "Check lun support [%s]", id.c_str());
      response->set_success(look_up(id));
      BASELINE_LOG(kSource, 108, "Check lun support pass [%s]", id.c_str());
    }
    return grpc::Status::OK;
  }

  grpc::Status Publish(grpc::ServerContext*, const PluginCmd* request,
                       PluginCmdResp* response) override {
    constexpr char kSource[] = "plugin_server_ctrl";
    response->set_success(true);
    if (request->has_init_snapshot_req()) {
      const std::string& id = request->init_snapshot_req().src_lun_p80();
      BASELINE_LOG(kSource, 208, "Init snapshots broadcast [%s]", id.c_str());
      state_of(id) = 0;
      PluginCmd cmd = *request;
      cmd.set_task_id(id);
      for (std::size_t i = 0; i < g_hosts_end; ++i) push(cmd, g_hosts[i]);
      wait_for(state_of(id), 2);
      BASELINE_LOG(kSource, 220, "Init snapshots success(start mirror) [%s]", id.c_str());
      response->mutable_init_snapshot_resp()->set_task_id(id);
      return grpc::Status::OK;
    }
    const std::string& id = request->task_id();
    if (request->has_mirror_done_req()) {
      BASELINE_LOG(kSource, 234, "Mirror done [%s]", id.c_str());
      move(state_of(id), 3);
      BASELINE_LOG(kSource, 244, "Mirror done success [%s]", id.c_str());
    } else if (request->has_wait_for_depart_req()) {
      BASELINE_LOG(kSource, 255, "Wait for depart relation [%s]", id.c_str());
      wait_for(state_of(id), 4);
      BASELINE_LOG(kSource, 264, "Wait for depart relation success [%s]", id.c_str());
    } else {
      BASELINE_LOG(kSource, 275, "Depart relation done [%s]", id.c_str());
      if (state_of(id).exchange(0) == 0) {
        BASELINE_LOG(kSource, 278, "Task not exists: [%s]", id.c_str());
      }
    }
    return grpc::Status::OK;
  }

  static void push(const PluginCmd& cmd, host& to) {
    const std::lock_guard lock(to.mutex);
    const auto writer = to.writer.load();
    if (writer == nullptr || (!g_bare && to.context->IsCancelled())) return;
    BASELINE_LOG("plugin_client", 37, "push command to plugin_id=%s ip=%s", to.id.c_str(),
                 address_of(*to.context).c_str());
    writer->Write(cmd);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fputs("usage: baseline work|bare PORT SOCKET\n", stderr);
    return 2;
  }
  g_bare = std::string_view(argv[1]) == "bare";
  baseline_service service;
  grpc::ServerBuilder builder;
  builder.AddListeningPort(std::string("0.0.0.0:") + argv[2], grpc::InsecureServerCredentials());
  builder.AddListeningPort(std::string("unix://") + argv[3], grpc::InsecureServerCredentials());
  builder.RegisterService(&service);
  const auto server = builder.BuildAndStart();
  if (!server) return 1;
  server->Wait();
  return 0;
}

#include "plugin_server_ctrl.h"

#include <chrono>
#include <utility>

#include "log.h"
#include "plugin_utils.h"

namespace vexo::scsiplugin {

namespace {
constexpr char kLogSource[] = "plugin_server_ctrl";
}

// --- Registry of subscribers ---

void PluginServerCtrl::add_client(std::shared_ptr<plugin_client> client) {
  const mutex_lock lock(client_mutex);
  const std::string& key = client->request->plugin_id();
  if (const auto replaced = client_map.put(key, std::move(client))) replaced->release();
}

void PluginServerCtrl::del_client(const std::shared_ptr<plugin_client>& client) {
  const mutex_lock lock(client_mutex);
  client_map.erase(client->request->plugin_id());
}

std::shared_ptr<plugin_client> PluginServerCtrl::get_client(const std::string& plugin_id) {
  const mutex_lock lock(client_mutex);
  return client_map.find(plugin_id);
}

std::shared_ptr<plugin_client> PluginServerCtrl::get_client(const PluginClient& req) {
  return get_client(req.plugin_id());
}

void PluginServerCtrl::list_clients(PluginClientList* out) {
  const mutex_lock lock(client_mutex);
  for (const auto& [plugin_id, client] : client_map) {
    if (client->context->IsCancelled()) continue;
    PluginClient* const entry = out->add_list();
    entry->set_plugin_id(plugin_id);
    entry->set_type(client->request->type());
    entry->set_ip(client->peer);
  }
}

void PluginServerCtrl::broadcast_cmd(const PluginCmd& cmd) {
  const mutex_lock lock(client_mutex);
  for (auto entry = client_map.begin(); entry != client_map.end();) {
    plugin_client& client = *entry->second;
    if (client.context->IsCancelled()) {
      // Continues with the same entry, not with the next. A cancelled call stays cancelled, and
      // nobody can remove the entry while client_mutex is held: a broadcast that meets a vanished
      // subscriber never returns. A supervisor has to end the process.
      client.release();
      continue;
    }
    client.push_cmd(cmd);
    ++entry;
  }
}

void PluginServerCtrl::release_all_clients() {
  const mutex_lock lock(client_mutex);
  const auto entry = client_map.begin();
  while (entry != client_map.end()) entry->second->release();  // the first one only, for ever
}

// --- Table of handshakes ---

bool PluginServerCtrl::add_task(const std::string& task_id) {
  const mutex_lock lock(task_mutex);
  if (const auto existing = find_task(task_id)) {
    if (std::chrono::system_clock::now() - existing->create_time < TASK_EXPIRY) return false;
    PLUGIN_LOG(LOG_ERR, 15, "Task [%s] has been expired! try to remove it and create a new one",
               task_id.c_str());
    del_task(task_id);
  }
  const auto task = std::make_shared<plugin_task>();
  task->task_id = task_id;
  task->create_time = std::chrono::system_clock::now();
  task_map.put(task_id, task);
  return true;
}

std::shared_ptr<plugin_task> PluginServerCtrl::find_task(const std::string& task_id) const {
  return task_map.find(task_id);
}

std::size_t PluginServerCtrl::del_task(const std::string& task_id) {
  return task_map.erase(task_id);
}

// --- LunOp ---

void PluginServerCtrl::handle_cmd_is_lun_support(const LunCmd& request, LunCmdResp* response) {
  const IsLunSupportReq& req = request.is_lun_support_req();
  PLUGIN_LOG(LOG_INFO, 104, "Check lun support [%s]", req.src_lun_id().c_str());

  const bool supported = IsLunSupport(req.type(), req.src_lun_id());
  if (supported) {
    PLUGIN_LOG(LOG_INFO, 108, "Check lun support pass [%s]", req.src_lun_id().c_str());
  } else {
    PLUGIN_LOG(LOG_INFO, 111, "Check lun support failed [%s]", req.src_lun_id().c_str());
  }
  response->set_success(supported);
}

void PluginServerCtrl::handle_cmd_start_mirror(const LunCmd& request, LunCmdResp* response) {
  const mutex_lock lock(task_mutex);
  const StartMirrorReq& req = request.start_mirror_req();
  PLUGIN_LOG(LOG_INFO, 122, "Start mirror [%s]", req.src_lun_id().c_str());

  const auto task = find_task(req.src_lun_id());
  if (!task) {
    PLUGIN_LOG(LOG_ERR, 125, "Task not exists: [%s]", req.src_lun_id().c_str());
    response->set_success(false);
    return;
  }
  task->set_state(TASK_MIRROR_STARTED);
  response->set_success(true);
}

void PluginServerCtrl::handle_cmd_is_mirror_done(const LunCmd& request, LunCmdResp* response) {
  const mutex_lock lock(task_mutex);
  const IsMirrorDoneReq& req = request.is_mirror_done_req();
  PLUGIN_LOG(LOG_INFO, 144, "Check mirror done [%s]", req.src_lun_id().c_str());

  const auto task = find_task(req.src_lun_id());
  if (!task) {
    PLUGIN_LOG(LOG_ERR, 147, "Task not exists: [%s]", req.src_lun_id().c_str());
    response->set_success(false);
    return;
  }
  tag_iscsi_lun_ lun = {};
  if (!GetLunConf(&lun, req.src_lun_id(), req.type())) {
    PLUGIN_LOG(LOG_ERR, 153, "Failed to get lun config [%s]", req.src_lun_id().c_str());
    response->set_success(false);
    return;
  }
  if (has_all_flags(lun, LUN_FLAGS_BLUN_REPLICA)) {
    task->set_state(TASK_MIRROR_DONE);
    PLUGIN_LOG(LOG_INFO, 160, "Check mirror done skip (BLUN / Replication) [%s]",
               req.src_lun_id().c_str());
    response->set_success(true);
    return;
  }
  // Read without the task's mutex: task_mutex keeps out every writer except mirror_done, and a
  // change that comes too late for this poll is seen by the next.
  if (task->state != TASK_MIRROR_DONE) {
    PLUGIN_LOG(LOG_INFO, 171, "mirroring ... [%s]", req.src_lun_id().c_str());
    response->set_success(false);
    return;
  }
  PLUGIN_LOG(LOG_INFO, 166, "Check mirror done pass [%s]", req.src_lun_id().c_str());
  response->set_success(true);
}

void PluginServerCtrl::handle_cmd_depart_relation(const LunCmd& request, LunCmdResp* response) {
  const mutex_lock lock(task_mutex);
  const DepartRelationReq& req = request.depart_relation_req();
  PLUGIN_LOG(LOG_INFO, 182, "Depart relation start [%s]", req.src_lun_id().c_str());

  const auto task = find_task(req.src_lun_id());
  if (!task) {
    PLUGIN_LOG(LOG_ERR, 185, "Task not exists: [%s]", req.src_lun_id().c_str());
    response->set_success(false);
    return;
  }
  task->set_state(TASK_DEPART_STARTED);
  response->set_success(true);
}

// --- Publish ---

void PluginServerCtrl::handle_cmd_init_snapshot(const PluginCmd& request, PluginCmdResp* response) {
  // A host that subscribes a moment later misses the announcement either way, so no client_mutex.
  if (client_map.empty()) {
    PLUGIN_LOG(LOG_INFO, 199, "Plugin list is empty, skip notify plugin");
    response->set_success(false);
    return;
  }
  PluginCmd cmd = request;
  const std::string& key = cmd.init_snapshot_req().src_lun_p80();
  PLUGIN_LOG(LOG_INFO, 208, "Init snapshots broadcast [%s]", key.c_str());
  if (!add_task(key)) {
    PLUGIN_LOG(LOG_ERR, 211, "Init snasphot failed due to task is in progress: [%s]", key.c_str());
    response->set_success(false);
    return;
  }
  cmd.set_task_id(key);
  broadcast_cmd(cmd);

  // Looked up only now: during the broadcast somebody may have ended the handshake.
  const auto task = find_task(key);
  if (task && task->wait_for(TASK_MIRROR_STARTED)) {
    PLUGIN_LOG(LOG_INFO, 220, "Init snapshots success(start mirror) [%s]", key.c_str());
    response->mutable_init_snapshot_resp()->set_task_id(key);
    response->set_success(true);
    return;
  }
  PLUGIN_LOG(LOG_ERR, 224, "Init snapshots failed [%s]", key.c_str());
  // A task that is under the key by now belongs to another announcement.
  if (!task) return response->set_success(false);
  response->set_success(false);
  const mutex_lock lock(task_mutex);
  del_task(key);
}

void PluginServerCtrl::handle_cmd_mirror_done(const PluginCmd& request, PluginCmdResp* response) {
  const std::string& key = request.task_id();
  PLUGIN_LOG(LOG_INFO, 234, "Mirror done [%s]", key.c_str());

  const auto task = find_task(key);
  if (!task) {
    PLUGIN_LOG(LOG_ERR, 237, "Task not exists: [%s]", key.c_str());
    response->set_success(false);
    return;
  }
  // No lock covers both the check and the change: a handshake has one local caller, which makes
  // one call at a time.
  if (task->state != TASK_MIRROR_STARTED) {
    PLUGIN_LOG(LOG_ERR, 247, "Mirror done failed [%s]", key.c_str());
    response->set_success(false);
    return;
  }
  task->set_state(TASK_MIRROR_DONE);
  PLUGIN_LOG(LOG_INFO, 244, "Mirror done success [%s]", key.c_str());
  response->set_success(true);
}

void PluginServerCtrl::handle_cmd_wait_for_depart(const PluginCmd& request,
                                                  PluginCmdResp* response) {
  const std::string& key = request.task_id();
  PLUGIN_LOG(LOG_INFO, 255, "Wait for depart relation [%s]", key.c_str());

  const auto task = find_task(key);
  if (!task) {
    PLUGIN_LOG(LOG_ERR, 258, "Task not exists: [%s]", key.c_str());
    response->set_success(false);
    return;
  }
  if (!task->wait_for(TASK_DEPART_STARTED)) {
    PLUGIN_LOG(LOG_ERR, 267, "Wait for depart relation failed [%s]", key.c_str());
    response->set_success(false);
    return;
  }
  PLUGIN_LOG(LOG_INFO, 264, "Wait for depart relation success [%s]", key.c_str());
  response->set_success(true);
}

void PluginServerCtrl::handle_cmd_depart_done(const PluginCmd& request, PluginCmdResp* response) {
  const std::string& key = request.task_id();
  PLUGIN_LOG(LOG_INFO, 275, "Depart relation done [%s]", key.c_str());

  const auto task = find_task(key);
  if (!task) {
    PLUGIN_LOG(LOG_ERR, 278, "Task not exists: [%s]", key.c_str());
    response->set_success(true);  // what is gone has departed
    return;
  }
  // Without client_mutex, so that a broadcast to a slow host does not delay the handshake's end.
  if (const auto client = client_map.find(task->plugin_id)) client->push_cmd(request);
  const mutex_lock lock(task_mutex);
  del_task(key);
  response->set_success(true);
}

}  // namespace vexo::scsiplugin

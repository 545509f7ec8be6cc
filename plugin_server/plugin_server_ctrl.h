#ifndef PLUGIN_SERVER_PLUGIN_SERVER_CTRL_H_
#define PLUGIN_SERVER_PLUGIN_SERVER_CTRL_H_

#include <cstddef>
#include <memory>
#include <string>

#include "lun_cmd.pb.h"
#include "mutex.h"
#include "plugin_client.h"
#include "plugin_cmd.pb.h"
#include "plugin_task.h"
#include "record_map.h"

namespace vexo::scsiplugin {

// The registry of subscribers, the table of handshakes, and the eight command handlers on them.
// One per process; any thread may call anything.
//
// Lock order: client_mutex, then a client's write_mutex; task_mutex, then a task's mutex. Locks of
// subscribers and locks of tasks are never held together. A function that is documented below to
// take no registry lock never waits for a slow host's broadcast or for a slow configuration load.
class PluginServerCtrl {
 public:
  // --- Registry of subscribers, by plugin_id. All of these take client_mutex. ---

  // Registers `client`. A subscriber already registered under its plugin_id is replaced, then
  // released.
  void add_client(std::shared_ptr<plugin_client> client) PLUGIN_EXCLUDES(client_mutex);

  // Removes the subscriber registered under `client`'s plugin_id, without releasing it.
  void del_client(const std::shared_ptr<plugin_client>& client) PLUGIN_EXCLUDES(client_mutex);

  // The subscriber registered under the plugin_id, or an empty pointer.
  std::shared_ptr<plugin_client> get_client(const std::string& plugin_id)
      PLUGIN_EXCLUDES(client_mutex);
  std::shared_ptr<plugin_client> get_client(const PluginClient& req) PLUGIN_EXCLUDES(client_mutex);

  // Adds every subscriber whose call is alive to `out`, with the address the server sees.
  void list_clients(PluginClientList* out) PLUGIN_EXCLUDES(client_mutex);

  // Pushes `cmd` to every subscriber, one after the other. Blocks while a host takes no data, and
  // never returns once it meets a subscriber whose call was cancelled: see the definition.
  void broadcast_cmd(const PluginCmd& cmd) PLUGIN_EXCLUDES(client_mutex);

  // Releases the first subscriber again and again. Returns only when there is no subscriber.
  // Nothing calls it.
  void release_all_clients() PLUGIN_EXCLUDES(client_mutex);

  // --- Table of handshakes, by task id. ---

  // Creates a task. Replaces one with the same id that is older than TASK_EXPIRY; when it is
  // younger, does nothing and returns false. Takes task_mutex.
  bool add_task(const std::string& task_id) PLUGIN_EXCLUDES(task_mutex);

  // The task, or an empty pointer. Takes no registry lock; a caller that needs the task to stay in
  // the table holds task_mutex.
  std::shared_ptr<plugin_task> find_task(const std::string& task_id) const;

  // The number of tasks removed, 0 or 1. A handler that waits on a removed task keeps waiting.
  std::size_t del_task(const std::string& task_id) PLUGIN_REQUIRES(task_mutex);

  // --- LunOp. Each sets `success`, and nothing else, in the response. ---

  // Takes no lock; loads the configuration.
  void handle_cmd_is_lun_support(const LunCmd& request, LunCmdResp* response);
  // These hold task_mutex throughout; is_mirror_done also while it loads the configuration.
  void handle_cmd_start_mirror(const LunCmd& request, LunCmdResp* response)
      PLUGIN_EXCLUDES(task_mutex);
  void handle_cmd_is_mirror_done(const LunCmd& request, LunCmdResp* response)
      PLUGIN_EXCLUDES(task_mutex);
  void handle_cmd_depart_relation(const LunCmd& request, LunCmdResp* response)
      PLUGIN_EXCLUDES(task_mutex);

  // --- Publish. Each sets `success`, init_snapshot also `init_snapshot_resp`. ---

  // Announces the snapshot to every subscriber, then waits up to TASK_WAIT for a host to start the
  // mirror. Takes client_mutex to broadcast, task_mutex to create and to delete the task; holds
  // neither while it waits.
  void handle_cmd_init_snapshot(const PluginCmd& request, PluginCmdResp* response)
      PLUGIN_EXCLUDES(client_mutex, task_mutex);
  // Take no registry lock. wait_for_depart waits up to TASK_WAIT.
  void handle_cmd_mirror_done(const PluginCmd& request, PluginCmdResp* response);
  void handle_cmd_wait_for_depart(const PluginCmd& request, PluginCmdResp* response);
  // Pushes without a registry lock, then takes task_mutex to delete the task.
  void handle_cmd_depart_done(const PluginCmd& request, PluginCmdResp* response)
      PLUGIN_EXCLUDES(task_mutex);

  record_map<plugin_client> client_map;  // written under client_mutex
  record_map<plugin_task> task_map;      // written under task_mutex
  mutex client_mutex;
  mutex task_mutex;
};

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_PLUGIN_SERVER_CTRL_H_

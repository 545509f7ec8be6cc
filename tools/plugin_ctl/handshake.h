#ifndef TOOLS_PLUGIN_CTL_HANDSHAKE_H_
#define TOOLS_PLUGIN_CTL_HANDSHAKE_H_

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "plugin_cmd.pb.h"

namespace vexo::tools {

// What a local caller knows about the snapshot that it takes of one LUN, and the four commands made
// of it. The source LUN's page-80h identifier is also the key of the daemon's task.
struct handshake {
  std::string p80;
  std::string p83;
  std::string uuid;
  std::string dst_uuid;
  std::string dst_p80;
  std::string dst_p83;
  bool replica = false;
  std::uint32_t cmd_sn = 0;
  std::string qel_sn;
  std::int32_t result = 0;  // of the split as depart_done tells it to the hosts; 0 is success

  // Adds those of its options that `names` has, in that order: "--p80", or "ID" for p80 without an
  // option, "--p83", "--uuid", "--dst-uuid", "--dst-p80", "--dst-p83", "--replica", "--result",
  // "--cmd-sn" and "--qel-sn".
  void add_options(CLI::App& verb, const std::vector<std::string>& names);

  scsiplugin::PluginCmd init_snapshot() const;
  scsiplugin::PluginCmd mirror_done() const;
  scsiplugin::PluginCmd wait_for_depart() const;
  scsiplugin::PluginCmd depart_done() const;
};

// A daemon that refuses init_snapshot answers at once; one that has begun the handshake says no
// only after it has waited for a host. An answer that comes within this time is taken for a
// refusal.
inline constexpr std::chrono::milliseconds kRefusalTime = std::chrono::seconds(1);

// What the user can do after the daemon's answer was no. `took`: until that answer.
std::string next_after_refused_init(const handshake& about, std::chrono::duration<double> took);
std::string next_after_refused_mirror_done(const handshake& about,
                                           std::chrono::duration<double> took);
std::string next_after_refused_wait(const handshake& about, std::chrono::duration<double> took);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_HANDSHAKE_H_

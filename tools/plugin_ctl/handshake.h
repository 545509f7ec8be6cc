#ifndef TOOLS_PLUGIN_CTL_HANDSHAKE_H_
#define TOOLS_PLUGIN_CTL_HANDSHAKE_H_

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <string>

#include "plugin_cmd.pb.h"

namespace vexo::tools {

// What a local caller knows about the snapshot it drives, and the four commands made of it. The
// source LUN's page-80h identifier is also the key of the daemon's task.
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

  // Options for what each command carries besides p80. `init_snapshot` takes no more of the
  // destination than its UUID, `depart_done` its page identifiers too.
  void add_source_options(CLI::App& verb);
  void add_destination_uuid_option(CLI::App& verb);
  void add_destination_page_options(CLI::App& verb);
  void add_replica_option(CLI::App& verb);
  void add_serial_options(CLI::App& verb);

  scsiplugin::PluginCmd init_snapshot() const;
  scsiplugin::PluginCmd mirror_done() const;
  scsiplugin::PluginCmd wait_for_depart() const;
  // `result` of the split as the hosts are told it; 0 is success.
  scsiplugin::PluginCmd depart_done(std::int32_t result) const;
};

// A daemon that refuses init_snapshot does so at once; one that took it up says no only after it
// waited for a host. Answers that come within this time are taken for refusals, although the
// daemon needs no more than a moment.
inline constexpr std::chrono::milliseconds kRefusalTime = std::chrono::seconds(1);

// What to do after each command's no. `took` is how long the daemon needed for it.
std::string next_after_refused_init(const handshake& about, std::chrono::duration<double> took);
std::string next_after_refused_mirror_done(const handshake& about);
std::string next_after_refused_wait(const handshake& about, std::chrono::duration<double> took);

}  // namespace vexo::tools

#endif  // TOOLS_PLUGIN_CTL_HANDSHAKE_H_

#ifndef BENCH_LOAD_MODES_H_
#define BENCH_LOAD_MODES_H_

#include <vector>

#include "server.h"

namespace vexo::bench {

// The servers take turns, block by block, so that whatever else the machine does meets all of them.
struct blocks {
  int count;
  double seconds;  // of each, for each server
};

// One command for `hosts` hosts, and one answer: from the announcement to the last delivery, from
// there to the caller's release, and the server's CPU time for each delivery.
void fanout(int hosts, const blocks& how, const std::vector<server>& servers);

// From a host's start_mirror to the answer of the caller that has been waiting for it.
void wake(const blocks& how, const std::vector<server>& servers);

// Every method but Subscribe, at 1 to 16 callers, each with a connection of its own.
void unary(const blocks& how, const std::vector<server>& servers);

// is_lun_support for the last LUN of an inventory of `luns`, at one caller.
void lookup(int luns, const blocks& how, const std::vector<server>& servers);

// Whole handshakes, `at_once` of them side by side, with one host that answers all.
void handshakes(int at_once, const blocks& how, const std::vector<server>& servers);

// What it takes to hold `hosts` subscribers who do nothing.
void hold(int hosts, const std::vector<server>& servers);

// What is left behind when 800 hosts have come and gone three times.
void reconnects(const std::vector<server>& servers);

// Takes what is sent to /dev/log, for ever.
[[noreturn]] void take_log();

}  // namespace vexo::bench

#endif  // BENCH_LOAD_MODES_H_

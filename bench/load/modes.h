#ifndef BENCH_LOAD_MODES_H_
#define BENCH_LOAD_MODES_H_

#include <vector>

#include "server.h"

// What can be measured. Each of these prints what it has measured.
namespace vexo::bench {

// The servers take turns, round by round, so that whatever else the machine does affects all of
// them.
struct rounds {
  int count;
  double seconds;  // of each, for each server
};

// One command for `hosts` hosts, and one answer: from the announcement to the last delivery, from
// the answer to the caller's release, and the server's CPU time for each delivery.
void fanout(int hosts, const rounds& how, const std::vector<server>& servers);

// The same when the caller has been waiting for some time.
void wake(int hosts, const rounds& how, const std::vector<server>& servers);

// Every method but Subscribe, by `at_once` callers, each with a connection of its own.
void unary(int at_once, const rounds& how, const std::vector<server>& servers);

// is_lun_support for the last LUN of an inventory of `luns`, at one caller.
void lookup(int luns, const rounds& how, const std::vector<server>& servers);

// Whole handshakes, `at_once` of them side by side, with one host that answers all.
void handshakes(int at_once, const rounds& how, const std::vector<server>& servers);

// What it takes to hold `hosts` subscribers who do nothing, once.
void hold(int hosts, const rounds& how, const std::vector<server>& servers);

// The memory that is kept when `hosts` hosts have come and gone in each round.
void reconnects(int hosts, const rounds& how, const std::vector<server>& servers);

}  // namespace vexo::bench

#endif  // BENCH_LOAD_MODES_H_

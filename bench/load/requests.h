#ifndef BENCH_LOAD_REQUESTS_H_
#define BENCH_LOAD_REQUESTS_H_

#include <string>

namespace vexo::bench {

// A LUN of the inventory that scripts/bench writes.
std::string lun(int number);
// The identifier of a host.
std::string host_id(int number);

// Requests, as they go over the wire.
std::string client(const std::string& plugin_id);  // of Subscribe and UnSubscribe
std::string init_snapshot(const std::string& lun);
std::string mirror_done(const std::string& lun);
std::string wait_for_depart(const std::string& lun);
std::string depart_done(const std::string& lun);
std::string is_lun_support(const std::string& lun);
std::string start_mirror(const std::string& lun);
std::string is_mirror_done(const std::string& lun);
std::string depart_relation(const std::string& lun);

}  // namespace vexo::bench

#endif  // BENCH_LOAD_REQUESTS_H_

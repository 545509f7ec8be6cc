#ifndef PLUGIN_SERVER_RUNTIME_TUNING_H_
#define PLUGIN_SERVER_RUNTIME_TUNING_H_

namespace vexo::scsiplugin {

// Tunes the allocator and gRPC's locks for a daemon whose threads mostly wait. Affects the whole
// process, but nothing that was done before it: call it first in main, before any thread exists.
// Callers and log readers see no difference. Thread stacks keep the platform's default size,
// because the appliance's library runs on these threads, starts threads of its own, and was built
// for that size.
void tune_runtime();

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_RUNTIME_TUNING_H_

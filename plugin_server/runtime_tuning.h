#ifndef PLUGIN_SERVER_RUNTIME_TUNING_H_
#define PLUGIN_SERVER_RUNTIME_TUNING_H_

namespace vexo::scsiplugin {

// Fits the allocator and the gRPC library's locks to a daemon whose threads mostly wait. For the
// whole process, and only for what comes after it: the first statement of main, before any thread.
// Changes nothing that a caller or a log reader could see. Thread stacks stay at the platform's
// default: the appliance's library runs on these threads and starts its own, and was built for
// that.
void tune_runtime();

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_RUNTIME_TUNING_H_

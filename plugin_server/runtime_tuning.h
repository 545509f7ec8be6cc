#ifndef PLUGIN_SERVER_RUNTIME_TUNING_H_
#define PLUGIN_SERVER_RUNTIME_TUNING_H_

namespace vexo::scsiplugin {

// Fits the allocator, the threads and the gRPC library's locks to a daemon whose threads mostly
// wait. For the whole process, and only for what comes after it: the first statement of main,
// before any thread. Changes nothing that a caller or a log reader could see.
void tune_runtime();

}  // namespace vexo::scsiplugin

#endif  // PLUGIN_SERVER_RUNTIME_TUNING_H_

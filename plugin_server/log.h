#ifndef PLUGIN_SERVER_LOG_H_
#define PLUGIN_SERVER_LOG_H_

#include <syslog.h>

// Writes "scsi_plugin:<source>:<line>:<function> <text>" to syslog. Support staff search for
// source, line and function, so all three belong to the message and never follow the source text:
// `line` is fixed per message, and the source is the `kLogSource` of the file. `text` is a string
// literal, checked as a printf format.
#define PLUGIN_LOG(priority, line, text, ...)                          \
  syslog((priority), "scsi_plugin:%s:%d:%s " text, kLogSource, (line), \
         __func__ __VA_OPT__(, ) __VA_ARGS__)

#endif  // PLUGIN_SERVER_LOG_H_

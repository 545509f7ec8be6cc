#ifndef TOOLS_COMMON_EXIT_CODES_H_
#define TOOLS_COMMON_EXIT_CODES_H_

namespace vexo::tools {

// How a tool ends. Scripts and monitoring depend on the numbers.
enum class exit_code : int {
  done = 0,
  refused = 1,      // the daemon answered, and its answer was no (`success` false)
  usage = 2,        // the command line does not say what to do
  unreachable = 3,  // no connection, or no answer before the deadline
  failed = 4,       // any other gRPC status, or a failure on this side
  interrupted = 5,  // ended by SIGINT, SIGTERM or SIGHUP
  // Nobody reads the output any more. What a shell says of a program that SIGPIPE ended; nothing is
  // written to stderr.
  closed_pipe = 141,
};

}  // namespace vexo::tools

#endif  // TOOLS_COMMON_EXIT_CODES_H_

// tarn-monitor's commands and what they share: the parsed command line and
// the open routing-socket handle.
#ifndef TARN_MONITOR_MONITOR_H
#define TARN_MONITOR_MONITOR_H

#include <cstdint>
#include <string>
#include <vector>

#include <tarn/rtslib.h>

#include "message_output.h"
#include "session.h"

namespace tarn::monitor {

// Exit statuses.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

struct Options {
    Form form = Form::kBrief;
    uint8_t af = 0;         // --af; 0: the command's default
    uint64_t count = 0;     // --count; 0: no limit
    double timeout = 0;     // --timeout in seconds; 0: none
    std::vector<std::string> args;  // the command and its operands
};

// Prints "tarn-monitor: <text>" and the pointer to --help on stderr and
// returns kExitUsage.
int usage_error(const std::string &text);

// The commands: each checks its operands (a usage error is kExitUsage)
// and returns the exit status.
int run_watch(const Options &opts);
int run_get(const Options &opts);
int run_list(const Options &opts);

}  // namespace tarn::monitor

#endif  // TARN_MONITOR_MONITOR_H

// Command-line configuration of the kernel emulator.
#ifndef TARN_KERNEL_EMU_EMU_CONFIG_H
#define TARN_KERNEL_EMU_EMU_CONFIG_H

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "interfaces.h"

#include "socket_state.h"

namespace tarn::kemu {

struct EmuConfig {
    std::string socket_path;
    int interface_version;        // byte 1 of the version block
    int types;                    // byte 0 of the version block
    std::map<int, int> type_versions;  // overrides of single type versions
    std::set<int> fail_options;   // level-17 options whose set fails with EINVAL
    size_t queue_bound = kDefaultQueueBound;  // each socket's notification bound
    bool log = false;
    // --interfaces: the file and the set it describes (empty file name: the
    // built-in set).
    std::string interfaces_file;
    std::vector<IfChange> interfaces;
    uint32_t ifs_max_clients = 8;  // hw.product.ifs_max_clients
    unsigned socket_mode = 0600;   // permission bits of both socket files
};

enum class ParseOutcome { kRun, kHelp, kError };

// Fills `cfg` from argv; on kError `error` says what was wrong.
ParseOutcome parse_args(int argc, char **argv, EmuConfig &cfg, std::string &error);

std::string usage_text(const char *argv0);

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_EMU_CONFIG_H

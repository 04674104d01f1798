// The kernel emulator's control command lines: the input is split at line
// ends and each line is run as a command, alternately about a routing socket
// and about none. Any crash, leak or sanitizer report is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "kernel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace tarn::kemu;
    EmuConfig cfg;
    cfg.types = RTS_MSG_TYPE_COUNT;
    cfg.interface_version = RTS_INTERFACE_VERSION;
    const EmuLog log(false);
    Kernel kernel(cfg, log);
    const uint64_t sockets[2] = {kernel.open_socket("a"), 0};
    kernel.socket(sockets[0])->state.listen_mask = ~uint64_t{0};
    const std::string text(reinterpret_cast<const char *>(data), size);
    size_t n = 0;
    for (size_t start = 0; start <= text.size(); ++n) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        std::string out;
        kernel.command(sockets[n % 2], text.substr(start, end - start), out);
        start = end + 1;
        for (auto &q = kernel.socket(sockets[0])->queue; !q.empty();) q.pop();
    }
    return 0;
}

// The kernel emulator's control commands, which any local process that can
// reach the control socket may send: the input is a series of lines, each
// run as a command about one of two routing sockets or about none, in turn.
// Any crash, leak or sanitizer report is a finding; what the commands queue
// for the sockets is drained as a client would read it.
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
    const uint64_t ids[3] = {0, kernel.open_socket("a"), kernel.open_socket("b")};
    kernel.socket(ids[1])->state.listen_mask = ~uint64_t{0};

    const std::string text(reinterpret_cast<const char *>(data), size);
    size_t n = 0;
    for (size_t at = 0; at < text.size(); ++n) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        std::string out;
        kernel.command(ids[n % 3], text.substr(at, end - at), out);
        at = end + 1;
        for (uint64_t id : {ids[1], ids[2]})
            for (auto &q = kernel.socket(id)->queue; !q.empty();) q.pop();
    }
    return 0;
}

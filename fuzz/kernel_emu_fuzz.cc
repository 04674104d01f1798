// Feeds the emulated kernel whatever a client might write on its routing
// sockets: the input is a series of messages, each a 16-bit little-endian
// length and that many bytes (the last one cut short where the input ends),
// written alternately by two sockets that listen to everything. Any crash,
// leak or sanitizer report is a finding; answers and notifications are
// taken from the queues as a client would read them.
//
// The same input is first read as an --interfaces file; when it is one, the
// kernel starts with that set instead of the built-in one.
#include <algorithm>
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
    std::string error;
    if (parse_interfaces_text(std::string(reinterpret_cast<const char *>(data), size), cfg.interfaces,
                              error))
        cfg.interfaces_file = "input";
    const EmuLog log(false);
    Kernel kernel(cfg, log);
    const uint64_t sockets[2] = {kernel.open_socket("a"), kernel.open_socket("b")};
    for (uint64_t id : sockets) kernel.socket(id)->state.listen_mask = ~uint64_t{0};

    for (size_t pos = 0, n = 0; pos + 2 <= size; ++n) {
        const size_t len = std::min<size_t>(data[pos] | data[pos + 1] << 8, size - pos - 2);
        kernel.receive(sockets[n % 2], data + pos + 2, len);
        pos += 2 + len;
        for (uint64_t id : sockets)
            for (auto &q = kernel.socket(id)->queue; !q.empty();) q.pop();
    }
    return 0;
}

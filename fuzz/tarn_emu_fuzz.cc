// The routing-daemon emulator's request handling over arbitrary client
// frames, with the kernel in memory. Byte 0 picks scripted behaviour; then
// come frames, each a byte of client (odd: 1, even: 2) and type, a
// little-endian 16-bit payload length (cut to what is left) and the payload.
#include <algorithm>

#include "daemon.h"
#include "frame.h"
#include "memory_kernel.h"
#include "wire.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace tarn::temu;
    if (size == 0) return 0;
    DaemonConfig cfg;
    cfg.instances.push_back({"master", 65000, 0, false});
    cfg.lsping = default_lsping_config();
    MemoryKernel kernel;
    kernel.tables["blue"] = 5;
    EmuLog log;
    RoutingDaemon daemon(cfg, kernel, log);
    const uint8_t script = data[0];
    if (script & 1) daemon.refuse(61, 1);
    if (script & 2) daemon.force(static_cast<uint16_t>(script >> 4), script >> 2 & 3, 1);
    bool refused = false;
    daemon.connect(1, refused);
    daemon.connect(2, refused);

    size_t at = 1;
    for (unsigned n = 0; size - at >= 4; ++n) {
        const uint64_t client = 1 + (data[at] & 1);
        Frame f;
        f.type = data[at + 1];
        const size_t len = std::min<size_t>(data[at + 2] | data[at + 3] << 8, size - at - 4);
        f.payload.assign(data + at + 4, data + at + 4 + len);
        at += 4 + len;
        if (script & 4) kernel.fail_next = n % 3 == 0 ? 17 : 0;
        for (const auto &out : daemon.handle(client, f))
            if (out.frame.payload.size() > tarn::temu::wire::kMaxPayload) __builtin_trap();
    }
    kernel.fail_next = 0;
    daemon.disconnect(1);
    (void)daemon.dump();
    daemon.disconnect(2);
    // Every route belonged to a protocol of a client that is gone; the
    // kernel has them all removed unless it was made to refuse.
    if (daemon.route_count() != 0 || (!(script & 4) && !kernel.routes.empty())) __builtin_trap();
    return 0;
}

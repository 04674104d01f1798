// The routing-daemon emulator's operator inputs: the input is first read as
// a --config file (the emulator starts from it when it parses, from the
// default set otherwise), then each of its lines runs as a control command
// against an emulator with no clients. Any crash, leak or sanitizer report
// is a finding.
#include <cstddef>
#include <cstdint>
#include <string>

#include "daemon.h"
#include "lsping.h"
#include "memory_kernel.h"
#include "server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    using namespace tarn::temu;
    const std::string text(reinterpret_cast<const char *>(data), size);
    DaemonConfig cfg;
    std::string why;
    if (!parse_daemon_config(text, cfg, why)) {
        cfg = DaemonConfig{};
        cfg.instances.push_back({"master", 64512, 0, false});
        cfg.lsping = default_lsping_config();
    }
    MemoryKernel kernel;
    EmuLog log;
    RoutingDaemon daemon(cfg, kernel, log);
    ServerConfig scfg;
    Server server(scfg, daemon, log);
    for (size_t at = 0; at < text.size();) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos) end = text.size();
        int err = 0;
        server.command(text.substr(at, end - at), err);
        at = end + 1;
    }
    return 0;
}

// tarn-kernel-emu: the router kernel's routing socket, emulated on a Linux
// host so that libtarn and the daemons built on it run end to end.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "emu_config.h"
#include "emu_log.h"
#include "kernel.h"
#include "server.h"

int main(int argc, char **argv)
{
    using namespace tarn::kemu;
    EmuConfig cfg;
    std::string error;
    switch (parse_args(argc, argv, cfg, error)) {
    case ParseOutcome::kHelp:
        std::fputs(usage_text(argv[0]).c_str(), stdout);
        return 0;
    case ParseOutcome::kError:
        std::fprintf(stderr, "tarn-kernel-emu: %s\n(try --help)\n", error.c_str());
        return 2;
    case ParseOutcome::kRun:
        break;
    }

    // Signals arrive through a descriptor so the poll loop can shut down
    // cleanly; a client that vanishes must not kill us with SIGPIPE.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGUSR1);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    int sfd = signalfd(-1, &mask, SFD_CLOEXEC);
    if (sfd < 0) {
        std::fprintf(stderr, "tarn-kernel-emu: signalfd: %s\n", std::strerror(errno));
        return 1;
    }

    EmuLog log(cfg.log);
    Server server(cfg, log);
    if (!server.listen(error)) {
        std::fprintf(stderr, "tarn-kernel-emu: %s\n", error.c_str());
        return 1;
    }
    int rc = server.run(sfd);
    close(sfd);
    return rc;
}

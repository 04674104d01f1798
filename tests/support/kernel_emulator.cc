#include "kernel_emulator.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include <gtest/gtest.h>

namespace tarn::test {

KernelEmulator::KernelEmulator(std::vector<std::string> args)
    : EmulatorProcess(TARN_KERNEL_EMU_PATH, std::move(args))
{
    if (!running()) ADD_FAILURE() << error();
}

pid_t start_kernel_emulator_at(const std::string &path)
{
    const pid_t pid = kemu::spawn({TARN_KERNEL_EMU_PATH, "--socket", path});
    const std::string ctl = path + ".ctl";
    const auto accepts = [&ctl] {
        const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, ctl.c_str(), sizeof addr.sun_path - 1);
        const bool ok = fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
        if (fd >= 0) ::close(fd);
        return ok;
    };
    if (pid < 0 || !kemu::wait_until_ready(pid, accepts)) return -1;
    return pid;
}

}  // namespace tarn::test

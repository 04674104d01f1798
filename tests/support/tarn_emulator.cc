#include "tarn_emulator.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

int connect_stream(const std::string &path)
{
    int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (fd >= 0 && ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0) return fd;
    if (fd >= 0) ::close(fd);
    return -1;
}

}  // namespace

TarnEmulator::TarnEmulator(std::vector<std::string> args)
{
    if (!kernel_.running()) return;
    dir_ = kemu::make_temp_dir();
    if (dir_.empty()) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return;
    }
    socket_ = dir_ + "/tarn.sock";
    control_ = dir_ + "/tarn.ctl";
    args.insert(args.begin(), {TARN_EMU_PATH, "--listen", socket_, "--control", control_,
                               "--kernel", kernel_.socket_path(), "--log", dir_ + "/tarn.log"});
    pid_ = kemu::spawn(std::move(args));
    // Ready once the control socket answers: it is bound last.
    const auto control_answers = [this] {
        const int fd = connect_stream(control_);
        if (fd >= 0) ::close(fd);
        return fd >= 0;
    };
    if (pid_ < 0 || !kemu::wait_until_ready(pid_, control_answers)) {
        ADD_FAILURE() << "tarn-emu did not start; log:\n" << log();
        pid_ = -1;
    }
}

TarnEmulator::~TarnEmulator()
{
    stop();
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

int TarnEmulator::connect_client() const
{
    return connect_stream(socket_);
}

std::string TarnEmulator::control(const std::string &line) const
{
    const int fd = connect_stream(control_);
    if (fd < 0) return "error no control socket\n";
    const std::string text = line + "\n";
    ::send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    std::string out;
    char buf[4096];
    for (ssize_t n; (n = ::recv(fd, buf, sizeof buf, 0)) > 0;) out.append(buf, static_cast<size_t>(n));
    ::close(fd);
    return out;
}

std::string TarnEmulator::log() const
{
    return kemu::file_text(dir_ + "/tarn.log");
}

bool TarnEmulator::wait_for_log(const std::string &text) const
{
    return kemu::wait_for_text(dir_ + "/tarn.log", text);
}

int TarnEmulator::stop()
{
    const int status = kemu::terminate(pid_);
    pid_ = -1;
    return status;
}

}  // namespace tarn::test

#include "tarn_emulator.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

constexpr const char kRunner[] = TARN_TARGET_RUNNER;

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
    char tmpl[] = "/tmp/tarn-emu-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        ADD_FAILURE() << "mkdtemp: " << std::strerror(errno);
        return;
    }
    dir_ = tmpl;
    socket_ = dir_ + "/tarn.sock";
    control_ = dir_ + "/tarn.ctl";
    std::vector<std::string> argv_s;
    if (kRunner[0] != '\0') argv_s.push_back(kRunner);
    argv_s.insert(argv_s.end(), {TARN_EMU_PATH, "--listen", socket_, "--control", control_, "--kernel",
                                 kernel_.socket_path(), "--log", dir_ + "/tarn.log"});
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    // Ready once the control socket answers: it is bound last.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        const int fd = connect_stream(control_);
        if (fd >= 0) {
            ::close(fd);
            break;
        }
        int status = 0;
        if (pid_ < 0 || ::waitpid(pid_, &status, WNOHANG) == pid_ ||
            std::chrono::steady_clock::now() > deadline) {
            ADD_FAILURE() << "tarn-emu did not start; log:\n" << log();
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
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
    std::ifstream in(dir_ + "/tarn.log");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool TarnEmulator::wait_for_log(const std::string &text) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (log().find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

int TarnEmulator::stop()
{
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace tarn::test

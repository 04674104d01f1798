#include "emu_process.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "libtarn/os/emu_protocol.h"

namespace tarn::kemu {

namespace {

constexpr const char kTargetRunner[] = TARN_TARGET_RUNNER;

bool can_connect(const std::string &path)
{
    int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bool ok = ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0;
    ::close(fd);
    return ok;
}

}  // namespace

EmulatorProcess::EmulatorProcess(const std::string &binary, std::vector<std::string> args,
                                 int cpu)
{
    char tmpl[] = "/tmp/tarn-emu-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr) {
        error_ = std::string("mkdtemp: ") + std::strerror(errno);
        return;
    }
    dir_ = tmpl;
    path_ = dir_ + "/kernel.sock";
    const std::string log = dir_ + "/emu.out";

    // Programs of a cross build start through the runner its tests use
    // (qemu-i386 on a host that cannot execute i386 code itself).
    std::vector<std::string> argv_s;
    if (kTargetRunner[0] != '\0') argv_s.push_back(kTargetRunner);
    argv_s.insert(argv_s.end(), {binary, "--socket", path_});
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);

    pid_ = ::fork();
    if (pid_ == 0) {
        int out = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out >= 0) ::dup2(out, STDOUT_FILENO);
        if (cpu >= 0) {
            cpu_set_t set;
            CPU_ZERO(&set);
            CPU_SET(cpu, &set);
            ::sched_setaffinity(0, sizeof set, &set);
        }
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    if (pid_ < 0) {
        error_ = std::string("fork: ") + std::strerror(errno);
        return;
    }
    // Ready once the control path accepts: both paths are bound by then.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!can_connect(path_ + emu::kControlSuffix)) {
        int status = 0;
        if (::waitpid(pid_, &status, WNOHANG) == pid_ || std::chrono::steady_clock::now() > deadline) {
            error_ = "kernel emulator did not start; output:\n" + output();
            pid_ = -1;
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ::setenv(emu::kSocketEnv, path_.c_str(), 1);
}

int EmulatorProcess::stop()
{
    if (pid_ <= 0) return -1;
    ::kill(pid_, SIGTERM);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    ::unsetenv(emu::kSocketEnv);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string EmulatorProcess::output() const
{
    std::ifstream in(dir_ + "/emu.out");
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool EmulatorProcess::wait_for_output(const std::string &text) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (output().find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

EmulatorProcess::~EmulatorProcess()
{
    stop();
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

}  // namespace tarn::kemu

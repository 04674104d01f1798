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

pid_t spawn(std::vector<std::string> argv_s, const std::string &stdout_path, int cpu)
{
    if (kTargetRunner[0] != '\0') argv_s.insert(argv_s.begin(), kTargetRunner);
    std::vector<char *> argv;
    for (auto &a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        if (!stdout_path.empty()) {
            const int out = ::open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (out >= 0) ::dup2(out, STDOUT_FILENO);
        }
        if (cpu >= 0) {
            cpu_set_t set;
            CPU_ZERO(&set);
            CPU_SET(cpu, &set);
            ::sched_setaffinity(0, sizeof set, &set);
        }
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    return pid;
}

bool wait_until_ready(pid_t pid, const std::function<bool()> &ready)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!ready()) {
        int status = 0;
        if (::waitpid(pid, &status, WNOHANG) == pid || std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

int terminate(pid_t pid)
{
    if (pid <= 0) return -1;
    ::kill(pid, SIGTERM);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string file_text(const std::string &path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

bool wait_for_text(const std::string &path, const std::string &text)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (file_text(path).find(text) == std::string::npos) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

std::string make_temp_dir()
{
    char tmpl[] = "/tmp/tarn-emu-XXXXXX";
    return ::mkdtemp(tmpl) != nullptr ? std::string(tmpl) : std::string();
}

EmulatorProcess::EmulatorProcess(const std::string &binary, std::vector<std::string> args,
                                 int cpu)
{
    dir_ = make_temp_dir();
    if (dir_.empty()) {
        error_ = std::string("mkdtemp: ") + std::strerror(errno);
        return;
    }
    path_ = dir_ + "/kernel.sock";
    args.insert(args.begin(), {binary, "--socket", path_});
    pid_ = spawn(std::move(args), dir_ + "/emu.out", cpu);
    if (pid_ < 0) {
        error_ = std::string("fork: ") + std::strerror(errno);
        return;
    }
    // Ready once the control path accepts: both paths are bound by then.
    if (!wait_until_ready(pid_, [this] { return can_connect(path_ + emu::kControlSuffix); })) {
        error_ = "kernel emulator did not start; output:\n" + output();
        pid_ = -1;
        return;
    }
    ::setenv(emu::kSocketEnv, path_.c_str(), 1);
}

int EmulatorProcess::stop()
{
    if (pid_ <= 0) return -1;
    const int status = terminate(pid_);
    pid_ = -1;
    ::unsetenv(emu::kSocketEnv);
    return status;
}

std::string EmulatorProcess::output() const
{
    return file_text(dir_ + "/emu.out");
}

bool EmulatorProcess::wait_for_output(const std::string &text) const
{
    return wait_for_text(dir_ + "/emu.out", text);
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

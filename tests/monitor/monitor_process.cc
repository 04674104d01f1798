#include "monitor_process.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <sstream>

namespace tarn::test {
namespace {

constexpr const char kRunner[] = TARN_TARGET_RUNNER;

bool read_some(int fd, std::string &into)
{
    char buf[4096];
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n <= 0) return false;
    into.append(buf, static_cast<size_t>(n));
    return true;
}

}  // namespace

MonitorProcess::MonitorProcess(const std::vector<std::string> &args)
{
    int out_pipe[2], err_pipe[2];
    if (::pipe(out_pipe) != 0 || ::pipe(err_pipe) != 0) return;
    std::vector<std::string> argv_s;
    if (kRunner[0] != '\0') argv_s.push_back(kRunner);
    argv_s.push_back(TARN_MONITOR_PATH);
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (auto &a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ == 0) {
        ::dup2(out_pipe[1], STDOUT_FILENO);
        ::dup2(err_pipe[1], STDERR_FILENO);
        ::close(out_pipe[0]);
        ::close(err_pipe[0]);
        ::execv(argv[0], argv.data());
        _exit(127);
    }
    ::close(out_pipe[1]);
    ::close(err_pipe[1]);
    out_fd_ = out_pipe[0];
    err_fd_ = err_pipe[0];
}

MonitorProcess::~MonitorProcess()
{
    if (pid_ > 0) {
        ::kill(pid_, SIGKILL);
        finish();
    }
}

std::string MonitorProcess::first_stderr_line()
{
    while (err.find('\n') == std::string::npos && read_some(err_fd_, err)) {
    }
    return err.substr(0, err.find('\n'));
}

int MonitorProcess::finish()
{
    while (read_some(out_fd_, out)) {
    }
    while (read_some(err_fd_, err)) {
    }
    ::close(out_fd_);
    ::close(err_fd_);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void MonitorProcess::signal(int sig) { ::kill(pid_, sig); }

MonitorRun run_monitor(const std::vector<std::string> &args)
{
    MonitorProcess p(args);
    const int status = p.finish();
    return {status, p.out, p.err};
}

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

}  // namespace tarn::test

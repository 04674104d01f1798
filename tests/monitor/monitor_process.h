// tarn-monitor run as a child process with its output captured.
#ifndef TARN_TESTS_MONITOR_PROCESS_H
#define TARN_TESTS_MONITOR_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::test {

class MonitorProcess {
public:
    explicit MonitorProcess(const std::vector<std::string> &args);
    ~MonitorProcess();

    // Reads stderr until its first line is complete (or closed) and
    // returns that line without its end.
    std::string first_stderr_line();
    // Reads both outputs to their end and waits: the exit status, -1 when
    // it did not exit normally.
    int finish();
    void signal(int sig);

    std::string out;
    std::string err;

private:
    pid_t pid_ = -1;
    int out_fd_ = -1;
    int err_fd_ = -1;
};

struct MonitorRun {
    int status;
    std::string out;
    std::string err;
};
MonitorRun run_monitor(const std::vector<std::string> &args);

// The lines of `text`, without their line ends.
std::vector<std::string> lines_of(const std::string &text);

}  // namespace tarn::test

#endif  // TARN_TESTS_MONITOR_PROCESS_H

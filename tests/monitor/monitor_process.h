// tarn-monitor run as a child process with its output captured, and a
// small JSON reader for what it prints.
#ifndef TARN_TESTS_MONITOR_PROCESS_H
#define TARN_TESTS_MONITOR_PROCESS_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace tarn::test {

class MonitorProcess {
public:
    explicit MonitorProcess(const std::vector<std::string> &args);
    ~MonitorProcess();

    // Reads stderr until `text` has appeared (true) or the program closed
    // it (false).
    bool wait_for_stderr(const std::string &text);
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

// A parsed JSON value: numbers keep their text so that large integers
// compare exactly.
struct Json {
    enum Kind { kNull, kNumber, kString, kArray, kObject } kind = kNull;
    std::string text;  // number text or string value
    std::vector<Json> items;
    std::map<std::string, Json> members;

    const Json &operator[](const std::string &key) const;
    uint64_t number() const { return std::stoull(text); }
};

// Parses one JSON text; false when it is not valid JSON (or has trailing
// bytes).
bool parse_json(const std::string &text, Json &out);

// The lines of `text`, without their line ends.
std::vector<std::string> lines_of(const std::string &text);

}  // namespace tarn::test

#endif  // TARN_TESTS_MONITOR_PROCESS_H

// A tarn-kernel-emu process on a fresh temporary socket, for programs that
// drive the library end to end (tests, benchmarks): started by the
// constructor, stopped with SIGTERM by stop() or the destructor. While it
// runs, TARN_KERNEL_SOCKET names its socket.
#ifndef TARN_KERNEL_EMU_EMU_PROCESS_H
#define TARN_KERNEL_EMU_EMU_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace tarn::kemu {

// Helpers for anything that starts a program of this build from a test or
// benchmark. `argv` runs through the target runner a cross build's tests use
// (qemu-i386 where the host cannot execute i386 code); its standard output
// goes to `stdout_path` unless that is empty; `cpu` >= 0 pins it. The pid,
// or -1 with errno.
pid_t spawn(std::vector<std::string> argv, const std::string &stdout_path = {}, int cpu = -1);
// Waits up to ten seconds for `ready`; false when the child exits first or
// the time runs out.
bool wait_until_ready(pid_t pid, const std::function<bool()> &ready);
// SIGTERM and wait: the exit status, or -1 if it did not exit normally.
int terminate(pid_t pid);
// The whole of a (log) file; empty when it cannot be read.
std::string file_text(const std::string &path);
// Waits up to five seconds for `text` to appear in the file.
bool wait_for_text(const std::string &path, const std::string &text);
// A fresh temporary directory, or empty with errno.
std::string make_temp_dir();

class EmulatorProcess {
public:
    // `cpu` >= 0 pins the emulator to that CPU.
    EmulatorProcess(const std::string &binary, std::vector<std::string> args, int cpu = -1);
    ~EmulatorProcess();
    EmulatorProcess(const EmulatorProcess &) = delete;
    EmulatorProcess &operator=(const EmulatorProcess &) = delete;

    bool running() const { return pid_ > 0; }
    // Why it is not running, when it failed to start.
    const std::string &error() const { return error_; }
    pid_t pid() const { return pid_; }
    const std::string &socket_path() const { return path_; }

    // Sends SIGTERM and waits: the exit status, or -1 if it did not exit
    // normally.
    int stop();

    // Everything the emulator printed on stdout so far (its --log lines).
    std::string output() const;

    // Waits up to five seconds for `text` to appear in the output.
    bool wait_for_output(const std::string &text) const;

private:
    pid_t pid_ = -1;
    std::string dir_;
    std::string path_;
    std::string error_;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_EMU_PROCESS_H

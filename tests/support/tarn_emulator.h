// A real tarn-emu process, with a kernel emulator of its own, on temporary
// sockets for integration tests; a failure to start is a test failure.
// Stopped (SIGTERM) by stop() or the destructor.
#ifndef TARN_TESTS_TARN_EMULATOR_H
#define TARN_TESTS_TARN_EMULATOR_H

#include <sys/types.h>

#include <string>
#include <vector>

#include "kernel_emulator.h"

namespace tarn::test {

class TarnEmulator {
public:
    explicit TarnEmulator(std::vector<std::string> args = {});
    ~TarnEmulator();
    TarnEmulator(const TarnEmulator &) = delete;
    TarnEmulator &operator=(const TarnEmulator &) = delete;

    bool running() const { return pid_ > 0; }
    // The clients' local stream socket.
    const std::string &socket_path() const { return socket_; }
    const std::string &control_path() const { return control_; }
    KernelEmulator &kernel() { return kernel_; }

    // A connected, blocking stream socket to the emulator; -1 on failure.
    int connect_client() const;
    // Runs a control command: the whole answer ("ok\n" + output, or
    // "error TEXT\n" and, for a refused line, the reason).
    std::string control(const std::string &line) const;
    // The log so far.
    std::string log() const;
    // Waits up to five seconds for `text` to appear in the log.
    bool wait_for_log(const std::string &text) const;
    // SIGTERM and wait: the exit status, or -1 if it did not exit normally.
    int stop();

private:
    KernelEmulator kernel_;
    pid_t pid_ = -1;
    std::string dir_, socket_, control_;
};

}  // namespace tarn::test

#endif  // TARN_TESTS_TARN_EMULATOR_H

// A real tarn-kernel-emu process on a temporary socket, for integration
// tests: started by the constructor, stopped (SIGTERM) by stop() or the
// destructor. While it runs, TARN_KERNEL_SOCKET names its socket.
#ifndef TARN_TESTS_KERNEL_EMULATOR_H
#define TARN_TESTS_KERNEL_EMULATOR_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarn::test {

class KernelEmulator {
public:
    explicit KernelEmulator(std::vector<std::string> args = {});
    ~KernelEmulator();
    KernelEmulator(const KernelEmulator &) = delete;
    KernelEmulator &operator=(const KernelEmulator &) = delete;

    bool running() const { return pid_ > 0; }
    const std::string &socket_path() const { return path_; }

    // Sends SIGTERM and waits: the exit status (or -1 if it did not exit
    // normally). The socket files must be gone afterwards.
    int stop();

    // Everything the emulator printed on stdout so far (its --log lines).
    std::string output() const;

    // Waits up to five seconds for `text` to appear in the output.
    bool wait_for_output(const std::string &text) const;

private:
    pid_t pid_ = -1;
    std::string dir_;
    std::string path_;
};

}  // namespace tarn::test

#endif  // TARN_TESTS_KERNEL_EMULATOR_H

// A real tarn-kernel-emu process on a temporary socket for integration
// tests; a failure to start is a test failure.
#ifndef TARN_TESTS_KERNEL_EMULATOR_H
#define TARN_TESTS_KERNEL_EMULATOR_H

#include <string>
#include <vector>

#include "emu_process.h"

namespace tarn::test {

class KernelEmulator : public kemu::EmulatorProcess {
public:
    explicit KernelEmulator(std::vector<std::string> args = {});
};

// A second kernel emulator on `path` (one that another emulator left, to
// stand for a restarted kernel): its pid once it accepts connections, or -1.
// Stop it with kemu::terminate.
pid_t start_kernel_emulator_at(const std::string &path);

}  // namespace tarn::test

#endif  // TARN_TESTS_KERNEL_EMULATOR_H

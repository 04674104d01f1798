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

}  // namespace tarn::test

#endif  // TARN_TESTS_KERNEL_EMULATOR_H

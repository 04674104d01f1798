#include "kernel_emulator.h"

#include <gtest/gtest.h>

namespace tarn::test {

KernelEmulator::KernelEmulator(std::vector<std::string> args)
    : EmulatorProcess(TARN_KERNEL_EMU_PATH, std::move(args))
{
    if (!running()) ADD_FAILURE() << error();
}

}  // namespace tarn::test

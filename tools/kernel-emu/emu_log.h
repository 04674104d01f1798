// The emulator's --log output: one line per event, on standard output,
// flushed at once so that a test or a person tailing it sees it immediately.
#ifndef TARN_KERNEL_EMU_EMU_LOG_H
#define TARN_KERNEL_EMU_EMU_LOG_H

namespace tarn::kemu {

class EmuLog {
public:
    explicit EmuLog(bool enabled) : enabled_(enabled) {}
    void line(const char *format, ...) const __attribute__((format(printf, 2, 3)));

private:
    bool enabled_;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_EMU_LOG_H

// The emulator's --log output: one line per event, flushed at once so that a
// test or a person tailing the file sees it immediately. Without a file the
// lines are dropped.
#ifndef TARN_TARN_EMU_EMU_LOG_H
#define TARN_TARN_EMU_EMU_LOG_H

#include <cstdio>
#include <string>

namespace tarn::temu {

class EmuLog {
public:
    EmuLog() = default;
    ~EmuLog();
    EmuLog(const EmuLog &) = delete;
    EmuLog &operator=(const EmuLog &) = delete;

    // "-" is standard output. False when the file cannot be opened.
    bool open(const std::string &path);
    void line(const char *format, ...) const __attribute__((format(printf, 2, 3)));
    // Every line of `text` as its own log line, after `prefix`.
    void lines(const char *prefix, const std::string &text) const;

private:
    std::FILE *out_ = nullptr;
};

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_EMU_LOG_H

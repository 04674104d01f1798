#include "emu_log.h"

#include <cstdarg>
#include <cstdio>

namespace tarn::kemu {

void EmuLog::line(const char *format, ...) const
{
    if (!enabled_) return;
    std::fputs("kernel-emu: ", stdout);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(stdout, format, ap);
    va_end(ap);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

}  // namespace tarn::kemu

#include "emu_log.h"

#include <cstdarg>

namespace tarn::temu {

EmuLog::~EmuLog()
{
    if (out_ != nullptr && out_ != stdout) std::fclose(out_);
}

bool EmuLog::open(const std::string &path)
{
    out_ = path == "-" ? stdout : std::fopen(path.c_str(), "a");
    return out_ != nullptr;
}

void EmuLog::line(const char *format, ...) const
{
    if (out_ == nullptr) return;
    std::fputs("tarn-emu: ", out_);
    va_list ap;
    va_start(ap, format);
    std::vfprintf(out_, format, ap);
    va_end(ap);
    std::fputc('\n', out_);
    std::fflush(out_);
}

void EmuLog::lines(const char *prefix, const std::string &text) const
{
    size_t start = 0;
    for (size_t nl; (nl = text.find('\n', start)) != std::string::npos; start = nl + 1)
        line("%s%s", prefix, text.substr(start, nl - start).c_str());
}

}  // namespace tarn::temu

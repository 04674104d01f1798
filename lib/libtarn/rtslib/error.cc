#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <tarn/rtslib.h>

namespace {

const char *const kLevelWords[] = {"DEBUG ", "INFO ", "WARNING ", "ERROR ", "FATAL ERROR "};
constexpr uint32_t kLevelCount = sizeof kLevelWords / sizeof kLevelWords[0];

}  // namespace

extern "C" void rtslib_err(rtslib_cookie *handle, uint32_t level, const char *format, ...)
{
    const int saved_errno = errno;
    if (handle != nullptr && handle->lib_error_fn == nullptr) return;

    char text[RTSLIB_ERR_MAX + 1];
    // The library never reports above level 4; an unknown level gets no word
    // rather than a read past the table.
    const char *word = level < kLevelCount ? kLevelWords[level] : "";
    int prefix = std::snprintf(text, sizeof text, "%s%s", "rtslib: ", word);
    if (prefix >= 0 && prefix < RTSLIB_ERR_MAX) {
        va_list ap;
        va_start(ap, format);
        std::vsnprintf(text + prefix, sizeof text - static_cast<size_t>(prefix), format, ap);
        va_end(ap);
    }

    if (handle != nullptr)
        handle->lib_error_fn(handle, handle->lib_error_arg, static_cast<int>(level), text);
    else
        rtslib_lib_error(nullptr, nullptr, static_cast<int>(level), text);
    errno = saved_errno;
}

extern "C" int rtslib_lib_error(rtslib_cookie *, void *, int level, const char *text)
{
    int rc = std::fprintf(stderr, "%s\n", text);
    if (level == RTSLIB_LOG_FATAL) std::exit(1);
    return rc;
}

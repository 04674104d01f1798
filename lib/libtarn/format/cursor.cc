// The output cursor. One rule for every formatter: an append that does not
// fit (with its terminator) ends the cursor, and nothing is written past the
// caller's buffer; what did fit stays terminated.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "libtarn/format/format_internal.h"

namespace {

TARN_PRINTF(3, 0)
void vfill(char **position, int *remaining, const char *format, va_list ap)
{
    if (!position || !remaining || !*position) return;
    if (*remaining <= 0) {
        *position = nullptr;
        return;
    }
    int n = std::vsnprintf(*position, static_cast<size_t>(*remaining), format, ap);
    if (n < 0 || n >= *remaining) {
        // vsnprintf cut the text and terminated it inside the buffer.
        *remaining -= n < 0 ? *remaining : n;
        *position = nullptr;
        return;
    }
    *remaining -= n;
    *position += n;
}

}  // namespace

namespace tarn::format {

void Cursor::add(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    vfill(&pos, &left, format, ap);
    va_end(ap);
}

Header read_header(const void *message)
{
    // Raw messages and decoded records share these offsets (rts_hdr_t is laid
    // out like the wire header), so one reader serves both.
    const auto *p = static_cast<const uint8_t *>(message);
    Header h{};
    h.version = p[4];
    h.type = p[5];
    h.op = p[6];
    h.op_flags = p[7];
    std::memcpy(&h.msglen, p + 8, 4);
    std::memcpy(&h.seq, p + 12, 4);
    std::memcpy(&h.error, p + 16, 4);
    return h;
}

}  // namespace tarn::format

extern "C" void rtslib_fill_format_buf(char **position, int *remaining, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    vfill(position, remaining, format, ap);
    va_end(ap);
}

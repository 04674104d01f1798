#include <tarn/compress.h>

#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <cerrno>

namespace {

// Level 6 (zlib) and 3 (zstd) are the libraries' own defaults: blobs are
// compressed once per change, so there is no reason to trade ratio for time.
constexpr int kZlibLevel = Z_DEFAULT_COMPRESSION;
constexpr int kZstdLevel = 3;

bool args_ok(const void *out, const uint32_t *out_len, const void *in, uint32_t in_len)
{
    return out != nullptr && out_len != nullptr && (in != nullptr || in_len == 0);
}

int from_zlib(int rc)
{
    switch (rc) {
    case Z_OK: return 0;
    case Z_MEM_ERROR: return ENOMEM;
    case Z_BUF_ERROR: return ENOBUFS;
    default: return EBADMSG;
    }
}

// One-shot inflate that, unlike uncompress(), tells a full output buffer
// (ENOBUFS) from a truncated stream (EBADMSG).
int inflate_all(uint8_t *out, uint32_t *out_len, const uint8_t *in, uint32_t in_len)
{
    z_stream zs{};
    if (inflateInit(&zs) != Z_OK) return ENOMEM;
    zs.next_in = const_cast<uint8_t *>(in);
    zs.avail_in = in_len;
    zs.next_out = out;
    zs.avail_out = *out_len;
    const int rc = inflate(&zs, Z_FINISH);
    const uLong produced = zs.total_out;
    inflateEnd(&zs);
    if (rc == Z_STREAM_END) {
        *out_len = static_cast<uint32_t>(produced);
        return 0;
    }
    if (rc == Z_MEM_ERROR) return ENOMEM;
    if (rc == Z_BUF_ERROR && zs.avail_out == 0) return ENOBUFS;
    return EBADMSG;
}

int from_zstd(size_t rc)
{
    switch (ZSTD_getErrorCode(rc)) {
    case ZSTD_error_dstSize_tooSmall: return ENOBUFS;
    case ZSTD_error_memory_allocation: return ENOMEM;
    default: return EBADMSG;
    }
}

}  // namespace

extern "C" {

int tarn_zlib_compress(void *out, uint32_t *out_len, const void *in, uint32_t in_len)
{
    if (!args_ok(out, out_len, in, in_len)) return EINVAL;
    uLongf n = *out_len;
    const int rc = compress2(static_cast<Bytef *>(out), &n, static_cast<const Bytef *>(in),
                             in_len, kZlibLevel);
    if (rc != Z_OK) return from_zlib(rc);
    *out_len = static_cast<uint32_t>(n);
    return 0;
}

int tarn_zlib_decompress(void *out, uint32_t *out_len, const void *in, uint32_t in_len)
{
    if (!args_ok(out, out_len, in, in_len)) return EINVAL;
    return inflate_all(static_cast<uint8_t *>(out), out_len, static_cast<const uint8_t *>(in),
                       in_len);
}

int tarn_zstd_compress(void *out, uint32_t *out_len, const void *in, uint32_t in_len)
{
    if (!args_ok(out, out_len, in, in_len)) return EINVAL;
    const size_t n = ZSTD_compress(out, *out_len, in, in_len, kZstdLevel);
    if (ZSTD_isError(n)) return from_zstd(n);
    *out_len = static_cast<uint32_t>(n);
    return 0;
}

int tarn_zstd_decompress(void *out, uint32_t *out_len, const void *in, uint32_t in_len)
{
    if (!args_ok(out, out_len, in, in_len)) return EINVAL;
    const size_t n = ZSTD_decompress(out, *out_len, in, in_len);
    if (ZSTD_isError(n)) return from_zstd(n);
    *out_len = static_cast<uint32_t>(n);
    return 0;
}

}  // extern "C"

// The codec runtime: every wire rule of the two encodings lives here once.
//
// Generated functions (lib/libtarn/idl/generated/, in the build tree) are
// straight-line sequences of calls into these helpers, one per field:
//   TLV encode   TlvEncoder e(out, len, bits);  e.u8(bit, tag, v) ... return e.size();
//                (the library's bodies test the map's bits themselves, eight
//                fields at a time, and pass no bits to the encoder)
//   TLV decode   TlvDecoder d(in, len, bits, alloc, ctx);
//                while (d.next()) switch (d.tag()) { case T: d.u8(bit, &r->f); ... }
//                return d.result();
//                (the bodies' cases go on to the next field's case when the
//                next item bears its tag)
//   IDR encode   IdrEncoder e(out, len); e.u8(v) ... e.end_fixed(); e.bytes(...) ...
//   IDR decode   IdrDecoder d(...); d.u8(&r->f) ... d.end_fixed(); d.bytes(...) ...
//   release      release_bytes / release_array / the nested release.
// The library's codecs are internal bodies per type (TLV: a complete encoder
// and a decoder that fills a cleared record; IDR decode: steps on the
// caller's IdrDecoder, see nest and each), with the exported functions
// clearing the record and calling them.
// Names: tlv_encode_<type>_0 and its siblings, tlv_rtti_sizeof_<type>_0,
// tlv_rtti_sizeof_map_<type>_0, idr_rtti_sizeof_<type>_0; record <type>_t,
// presence map <type>_map_t, bit numbers <TYPE>_BIT_<FIELD>.
//
// Wire integers are little-endian whatever the host; every length taken from
// input is checked against what remains, in 64-bit arithmetic.
#ifndef TARN_LIBTARN_IDL_RUNTIME_H
#define TARN_LIBTARN_IDL_RUNTIME_H

#include <bit>
#include <cstdint>
#include <cstring>

#include <tarn/idl_codec.h>

// The per-field helpers are forced inline: generated functions are long runs
// of them, and a call per field would cost more than the field itself.
#define TARN_IDL_HOT [[gnu::always_inline]]
// The TLV bodies of nested records stay calls: each has a decoder or encoder
// of its own, and inlined into their parents they made the encoders slower.
#ifndef TARN_IDL_TLV_BODY
#define TARN_IDL_TLV_BODY [[gnu::noinline]]
#endif

namespace tarn::idl {

inline constexpr int kRuntimeVersion = TARN_IDL_RUNTIME_VERSION;

// On a little-endian host the wire bytes are the value's own bytes.
inline void store_le(uint8_t *p, uint64_t v, uint32_t width)
{
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(p, &v, width);
    } else {
        for (uint32_t i = 0; i < width; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}

inline uint64_t load_le(const uint8_t *p, uint32_t width)
{
    uint64_t v = 0;
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(&v, p, width);
    } else {
        for (uint32_t i = 0; i < width; ++i) v |= static_cast<uint64_t>(p[i]) << (8 * i);
    }
    return v;
}

inline uint64_t round4(uint64_t n) { return (n + 3) & ~uint64_t{3}; }

// Byte strings are mostly addresses and names of up to 16 bytes: those are
// copied with two overlapping moves instead of a call to memcpy. Exactly the
// n bytes at dst are written.
inline void copy_bytes(uint8_t *dst, const uint8_t *src, uint64_t n)
{
    if (n >= 8 && n <= 16) {
        uint64_t a, b;
        std::memcpy(&a, src, 8);
        std::memcpy(&b, src + n - 8, 8);
        std::memcpy(dst, &a, 8);
        std::memcpy(dst + n - 8, &b, 8);
    } else if (n >= 4 && n < 8) {
        uint32_t a, b;
        std::memcpy(&a, src, 4);
        std::memcpy(&b, src + n - 4, 4);
        std::memcpy(dst, &a, 4);
        std::memcpy(dst + n - 4, &b, 4);
    } else if (n != 0) {
        std::memcpy(dst, src, n);
    }
}

template <class R, class M>
using TlvEncodeFn = uint32_t (*)(const R *, const M *, void *, uint32_t);
template <class R, class M>
using TlvDecodeFn = int32_t (*)(R *, M *, const void *, uint32_t, tarn_idl_alloc_fn, void *);
template <class R, class M>
using TlvReleaseFn = void (*)(R *, M *, tarn_idl_free_fn, void *);
template <class R>
using IdrEncodeFn = uint32_t (*)(const R *, void *, uint32_t);
template <class R>
using IdrDecodeFn = int32_t (*)(R *, const void *, uint32_t, tarn_idl_alloc_fn, void *);

// --- TLV ---------------------------------------------------------------

// Items are written only when they fit whole; the size counts everything.
class TlvEncoder {
public:
    TlvEncoder(void *out, uint32_t out_len, const uint32_t *bits)
        : out_(static_cast<uint8_t *>(out)), cap_(out ? out_len : 0), bits_(bits) {}

    TARN_IDL_HOT void u8(unsigned bit, uint32_t tag, uint8_t v) { scalar(bit, tag, v, 1); }
    TARN_IDL_HOT void u16(unsigned bit, uint32_t tag, uint16_t v) { scalar(bit, tag, v, 2); }
    TARN_IDL_HOT void u32(unsigned bit, uint32_t tag, uint32_t v) { scalar(bit, tag, v, 4); }
    TARN_IDL_HOT void u64(unsigned bit, uint32_t tag, uint64_t v) { scalar(bit, tag, v, 8); }

    // A null pointer encodes as an empty string whatever the count says.
    void bytes(unsigned bit, uint32_t tag, const uint8_t *p, uint32_t n)
    {
        if (!present(bit)) return;
        if (p == nullptr) n = 0;
        uint64_t at = size_;
        size_ += 8 + uint64_t{n};
        if (size_ <= cap_) {
            header(at, tag, n);
            copy_bytes(out_ + at + 8, p, n);
        }
        pad();
    }

    template <class R, class M>
    void record(unsigned bit, uint32_t tag, const R &rec, const M *map, TlvEncodeFn<R, M> enc)
    {
        if (present(bit)) nested(tag, rec, map, enc);
    }

    // One item per non-null element, each with the element map of its index.
    template <class R, class M>
    void array(unsigned bit, uint32_t tag, R *const *elems, uint32_t count, const M *maps,
               TlvEncodeFn<R, M> enc)
    {
        if (!present(bit) || elems == nullptr) return;
        for (uint32_t i = 0; i < count; ++i)
            if (elems[i]) nested(tag, *elems[i], maps ? &maps[i] : nullptr, enc);
    }

    uint32_t size() const { return static_cast<uint32_t>(size_); }

private:
    TARN_IDL_HOT bool present(unsigned bit) const { return bits_ == nullptr || ((*bits_ >> bit) & 1u); }

    TARN_IDL_HOT void header(uint64_t at, uint32_t tag, uint32_t len)
    {
        store_le(out_ + at, tag, 4);
        store_le(out_ + at + 4, len, 4);
    }

    TARN_IDL_HOT void pad()
    {
        uint64_t at = size_;
        size_ = round4(size_);
        if (size_ > at && size_ <= cap_) std::memset(out_ + at, 0, size_ - at);
    }

    // Items start at multiples of 4, so a scalar item with its padding is 12
    // or 16 bytes; where that fits, the value is stored zero-extended over
    // its padding. Only the item that does not fit with its padding takes
    // the general steps.
    TARN_IDL_HOT void scalar(unsigned bit, uint32_t tag, uint64_t v, uint32_t width)
    {
        if (!present(bit)) return;
        const uint64_t at = size_;
        const uint32_t padded = width < 4 ? 4 : width;
        if (at + 8 + padded <= cap_) {
            header(at, tag, width);
            store_le(out_ + at + 8, v, padded);
            size_ = at + 8 + padded;
            return;
        }
        size_ += 8 + width;
        if (size_ <= cap_) {
            header(at, tag, width);
            store_le(out_ + at + 8, v, width);
        }
        pad();
    }

    template <class R, class M>
    void nested(uint32_t tag, const R &rec, const M *map, TlvEncodeFn<R, M> enc)
    {
        uint64_t at = size_;
        bool room = at + 8 <= cap_;
        uint32_t len = enc(&rec, map, room ? out_ + at + 8 : nullptr,
                           room ? static_cast<uint32_t>(cap_ - at - 8) : 0);
        size_ += 8 + uint64_t{len};
        if (room) header(at, tag, len);
        pad();
    }

    uint8_t *out_;
    uint64_t cap_;
    uint64_t size_ = 0;
    const uint32_t *bits_;
};

// Blocks from the caller's allocator: nullptr when there is no allocator,
// the size does not fit its 32-bit argument, or it fails.
inline void *take_block(tarn_idl_alloc_fn alloc, void *ctx, uint64_t size)
{
    if (!alloc || size > UINT32_MAX) return nullptr;
    return alloc(static_cast<uint32_t>(size), ctx);
}

inline void *obtain_zeroed(tarn_idl_alloc_fn alloc, void *ctx, uint64_t size)
{
    void *p = take_block(alloc, ctx, size);
    if (p) std::memset(p, 0, size);
    return p;
}

// A decoder's block, cleared or not (an element record is cleared by its
// own type's assignment); a failure is recorded in err. Inline, so that the
// decoder's error field does not escape.
TARN_IDL_HOT inline void *decoder_block(tarn_idl_alloc_fn alloc, void *ctx, uint64_t size,
                                        bool zeroed, int32_t &err)
{
    void *p = zeroed ? obtain_zeroed(alloc, ctx, size) : take_block(alloc, ctx, size);
    if (!p) err = TARN_IDL_E_ALLOC;
    return p;
}

// The number of items from `at` on that bear `tag` and whose header lies in
// the input, plus one for the current item.
uint32_t tlv_run_length(const uint8_t *in, uint64_t len, uint64_t at, uint32_t tag);

// Every step is inline and nothing takes the decoder's address, so the
// compiler keeps its state in registers. A decoder whose address escaped to
// an out-of-line call would live in memory and be reloaded after every byte
// a field stores, since a byte store may alias anything.
class TlvDecoder {
public:
    TlvDecoder(const void *in, uint32_t in_len, uint32_t *bits, tarn_idl_alloc_fn alloc,
               void *alloc_ctx)
        : in_(static_cast<const uint8_t *>(in)), len_(in ? in_len : 0), bits_(bits),
          alloc_(alloc), alloc_ctx_(alloc_ctx) {}

    // Moves to the next whole item; false at the end of the input, at the first
    // item that does not fit, or after a failure.
    TARN_IDL_HOT bool next()
    {
        const uint64_t at = have_item_ ? next_ : 0;
        if (err_ == 0 && read_item(at)) return true;
        // What was read is consumed; the last item's padding may be missing.
        if (err_ == 0) result_ = have_item_ && next_ > len_ ? end_ : at;
        return false;
    }
    TARN_IDL_HOT uint32_t tag() const { return tag_; }
    // Bytes consumed, or the failure code.
    TARN_IDL_HOT int32_t result() const { return err_ ? err_ : static_cast<int32_t>(result_); }

    TARN_IDL_HOT void u8(unsigned bit, uint8_t *dst) { scalar(bit, dst, 1); }
    TARN_IDL_HOT void u16(unsigned bit, uint16_t *dst) { scalar(bit, dst, 2); }
    TARN_IDL_HOT void u32(unsigned bit, uint32_t *dst) { scalar(bit, dst, 4); }
    TARN_IDL_HOT void u64(unsigned bit, uint64_t *dst) { scalar(bit, dst, 8); }

    // A repeated string without a map is an error (scalars take the last value).
    TARN_IDL_HOT void bytes(unsigned bit, uint8_t **ptr, uint32_t *len)
    {
        if (taken(bit)) return;
        if (*ptr) return fail(TARN_IDL_E_GARBLED);
        *len = vlen_;
        if (vlen_) {
            void *p = alloc_ ? alloc_(vlen_, alloc_ctx_) : nullptr;
            if (!p) return fail(TARN_IDL_E_ALLOC);
            copy_bytes(static_cast<uint8_t *>(p), in_ + pos_ + 8, vlen_);
            *ptr = static_cast<uint8_t *>(p);
        }
        mark(bit);
    }

    // dec fills a cleared record and map (a complete decoder does too);
    // rel: the nested release, run with a probe to learn whether an earlier
    // item left blocks in the field.
    template <class R, class M>
    TARN_IDL_HOT void record(unsigned bit, R *dst, M *map, TlvDecodeFn<R, M> dec,
                             TlvReleaseFn<R, M> rel)
    {
        if (taken(bit)) return;
        // The first item of the field finds the record as zeroed; only a
        // repeated one can find blocks an earlier item left there.
        if ((seen_ >> bit) & 1u) {
            bool held = false;
            rel(dst, map, &probe_free, &held);
            if (held) return fail(TARN_IDL_E_GARBLED);
            // The repeat replaces what the earlier item decoded.
            *dst = R{};
            if (map) *map = M{};
        }
        if (!take_nested(dst, map, dec)) return;
        mark(bit);
    }

    template <class R, class M>
    TARN_IDL_HOT void array(unsigned bit, R ***elems, uint32_t *count, M **maps,
                            TlvDecodeFn<R, M> dec)
    {
        if (taken(bit)) return;
        if (*elems) return fail(TARN_IDL_E_GARBLED);
        uint32_t n = tlv_run_length(in_, len_, next_, tag_);
        auto *arr = static_cast<R **>(obtain(uint64_t{n} * sizeof(R *)));
        if (!arr) return;
        *elems = arr;
        *count = n;
        M *marr = nullptr;
        bool maps_cleared = false;
        if (maps) {
            if (*maps == nullptr) {
                *maps = static_cast<M *>(obtain(uint64_t{n} * sizeof(M)));
                maps_cleared = true;
            }
            if (!*maps) return;
            marr = *maps;
        }
        for (uint32_t i = 0; i < n; ++i) {
            if (i > 0 && !next_in_run()) return fail(TARN_IDL_E_GARBLED);
            auto *e = static_cast<R *>(obtain_uncleared(sizeof(R)));
            if (!e) return;
            *e = R{};
            arr[i] = e;
            if (marr && !maps_cleared) marr[i] = M{};
            if (!take_nested(e, marr ? &marr[i] : nullptr, dec)) return;
        }
        mark(bit);
    }

private:
    static void probe_free(void *, void *held) { *static_cast<bool *>(held) = true; }

    // With a map, the fields decoded so far are its bits: the map starts
    // cleared and only mark() sets them.
    TARN_IDL_HOT bool taken(unsigned bit) const { return bits_ && ((seen_ >> bit) & 1u); }
    TARN_IDL_HOT void mark(unsigned bit)
    {
        seen_ |= 1u << bit;
        if (bits_) *bits_ = seen_;
    }
    TARN_IDL_HOT void fail(int32_t code) { err_ = code; }
    TARN_IDL_HOT bool read_item(uint64_t at)
    {
        if (at + 8 > len_) return false;
        const auto vlen = static_cast<uint32_t>(load_le(in_ + at + 4, 4));
        if (at + 8 + vlen > len_) return false;
        pos_ = at;
        tag_ = static_cast<uint32_t>(load_le(in_ + at, 4));
        vlen_ = vlen;
        end_ = at + 8 + vlen;
        next_ = round4(end_);
        have_item_ = true;
        return true;
    }
    TARN_IDL_HOT bool next_in_run()
    {
        const uint32_t tag = tag_;
        return next_ <= len_ && read_item(next_) && tag_ == tag;
    }
    TARN_IDL_HOT void *obtain(uint64_t size)
    {
        return decoder_block(alloc_, alloc_ctx_, size, true, err_);
    }
    TARN_IDL_HOT void *obtain_uncleared(uint64_t size)
    {
        return decoder_block(alloc_, alloc_ctx_, size, false, err_);
    }

    template <class R, class M>
    TARN_IDL_HOT bool take_nested(R *dst, M *map, TlvDecodeFn<R, M> dec)
    {
        int32_t r = dec(dst, map, in_ + pos_ + 8, vlen_, alloc_, alloc_ctx_);
        if (r < 0) {
            fail(r);
            return false;
        }
        if (static_cast<uint32_t>(r) != vlen_) {
            fail(TARN_IDL_E_GARBLED);
            return false;
        }
        return true;
    }

    template <class T>
    TARN_IDL_HOT void scalar(unsigned bit, T *dst, uint32_t width)
    {
        if (taken(bit)) return;
        if (vlen_ < width) return fail(TARN_IDL_E_GARBLED);
        *dst = static_cast<T>(load_le(in_ + pos_ + 8, width));
        mark(bit);
    }

    const uint8_t *in_;
    uint64_t len_;
    uint32_t *bits_;
    tarn_idl_alloc_fn alloc_;
    void *alloc_ctx_;
    bool have_item_ = false;
    uint64_t pos_ = 0;      // start of the current item
    uint64_t end_ = 0;      // end of its value
    uint64_t next_ = 0;     // end rounded up to 4
    uint32_t tag_ = 0, vlen_ = 0;
    uint32_t seen_ = 0;  // fields decoded so far, with or without a map
    uint64_t result_ = 0;
    int32_t err_ = 0;
};

// Releases leave the record's fields as they were: the decoder's duplicate
// check runs a release with a probe in place of free and must not lose what
// it probes.
inline void release_bytes(uint8_t *const *ptr, tarn_idl_free_fn free_fn, void *ctx)
{
    if (*ptr && free_fn) free_fn(*ptr, ctx);
}

// Element releases take the element map of the same index; then each element,
// the element array and the element-map array go back to free_fn.
template <class R, class M>
void release_array(R **elems, uint32_t count, M *maps, TlvReleaseFn<R, M> rel,
                   tarn_idl_free_fn free_fn, void *ctx)
{
    if (elems) {
        for (uint32_t i = 0; i < count; ++i) {
            if (!elems[i]) continue;
            rel(elems[i], maps ? &maps[i] : nullptr, free_fn, ctx);
            if (free_fn) free_fn(elems[i], ctx);
        }
        if (free_fn) free_fn(elems, ctx);
    }
    if (maps && free_fn) free_fn(maps, ctx);
}

// IDR release has no maps; the element releases take (record, free, ctx).
template <class R>
void release_array_idr(R **elems, uint32_t count, void (*rel)(R *, tarn_idl_free_fn, void *),
                       tarn_idl_free_fn free_fn, void *ctx)
{
    if (!elems) return;
    for (uint32_t i = 0; i < count; ++i) {
        if (!elems[i]) continue;
        rel(elems[i], free_fn, ctx);
        if (free_fn) free_fn(elems[i], ctx);
    }
    if (free_fn) free_fn(elems, ctx);
}

// --- IDR ---------------------------------------------------------------
//
// The fixed fields in declaration order at their i386 alignment (64-bit
// scalars at 4), nested records in place (starting at a multiple of 4), a
// byte string or array as its 32-bit count in the pointer's place; zeros up
// to a multiple of 4; then the variable parts in field order: string bytes
// padded to 4, array elements one after another.

// Stores and loads of the stretches of IdrEncoder::open / IdrDecoder::open.
// put writes `width` bytes: the value and, when wider than the field, the
// zero gap that follows it.
TARN_IDL_HOT inline void put(uint8_t *p, uint64_t v, uint32_t width) { store_le(p, v, width); }
TARN_IDL_HOT inline void put_zeros(uint8_t *p, uint32_t n) { std::memset(p, 0, n); }
template <class T>
TARN_IDL_HOT inline void get(T *dst, const uint8_t *p)
{
    *dst = static_cast<T>(load_le(p, sizeof(T)));
}
// Runs of fields whose memory bytes are their wire bytes (little-endian
// builds whose layout the generator checked), `at` bytes into the record.
TARN_IDL_HOT inline void put_block(uint8_t *p, const void *rec, uint32_t at, uint32_t n)
{
    std::memcpy(p, static_cast<const uint8_t *>(rec) + at, n);
}
TARN_IDL_HOT inline void get_block(void *rec, uint32_t at, const uint8_t *p, uint32_t n)
{
    std::memcpy(static_cast<uint8_t *>(rec) + at, p, n);
}

template <class R>
uint32_t live_count(R *const *elems, uint32_t count)
{
    uint32_t n = 0;
    if (elems)
        for (uint32_t i = 0; i < count; ++i) n += elems[i] != nullptr;
    return n;
}

// The whole pieces of a stretch that did not fit, from the scratch copy.
// A free function: an encoder whose address never escapes stays in
// registers instead of being reloaded after every byte stored.
void idr_close_short(uint8_t *out, uint64_t cap, uint64_t open_at, const uint8_t *scratch,
                     const char *pieces);

class IdrEncoder {
public:
    IdrEncoder(void *out, uint32_t out_len)
        : out_(static_cast<uint8_t *>(out)), cap_(out ? out_len : 0) {}

    TARN_IDL_HOT void u8(uint8_t v) { scalar(v, 1, 1); }
    TARN_IDL_HOT void u16(uint16_t v) { scalar(v, 2, 2); }
    TARN_IDL_HOT void u32(uint32_t v) { scalar(v, 4, 4); }
    TARN_IDL_HOT void u64(uint64_t v) { scalar(v, 8, 4); }
    TARN_IDL_HOT void count(uint32_t n) { scalar(n, 4, 4); }

    template <class R>
    void record(const R &rec, IdrEncodeFn<R> enc)
    {
        align(4);
        bool room = size_ <= cap_;
        size_ += enc(&rec, room ? out_ + size_ : nullptr,
                     room ? static_cast<uint32_t>(cap_ - size_) : 0);
    }

    TARN_IDL_HOT void end_fixed() { align(4); }

    // A stretch of n bytes whose layout the generator knows: the fields are
    // stored at fixed offsets from the returned pointer, which is the output
    // when the stretch fits and `scratch` otherwise; close() then passes on
    // the whole fields and gaps that fit. `pieces` lists their sizes in order.
    TARN_IDL_HOT uint8_t *open(uint32_t n, uint8_t *scratch, const char *)
    {
        open_at_ = size_;
        size_ += n;
        return size_ <= cap_ ? out_ + open_at_ : scratch;
    }

    TARN_IDL_HOT void close(const uint8_t *p, const uint8_t *scratch, const char *pieces)
    {
        if (p == scratch) idr_close_short(out_, cap_, open_at_, scratch, pieces);
    }

    void bytes(const uint8_t *p, uint32_t n)
    {
        if (p == nullptr) n = 0;
        uint64_t at = size_;
        size_ += n;
        if (size_ <= cap_) copy_bytes(out_ + at, p, n);
        align(4);
    }

    template <class R>
    void array(R *const *elems, uint32_t count, IdrEncodeFn<R> enc)
    {
        if (!elems) return;
        for (uint32_t i = 0; i < count; ++i)
            if (elems[i]) record(*elems[i], enc);
    }

    uint32_t size() const { return static_cast<uint32_t>(size_); }

private:
    TARN_IDL_HOT void align(uint32_t a)
    {
        uint64_t at = size_;
        size_ = (size_ + a - 1) / a * a;
        if (size_ > at && size_ <= cap_) std::memset(out_ + at, 0, size_ - at);
    }

    TARN_IDL_HOT void scalar(uint64_t v, uint32_t width, uint32_t alignment)
    {
        align(alignment);
        uint64_t at = size_;
        size_ += width;
        if (size_ <= cap_) store_le(out_ + at, v, width);
    }

    uint8_t *out_;
    uint64_t cap_;
    uint64_t size_ = 0;
    uint64_t open_at_ = 0;
};

// The scratch copy of a stretch that is not all there: the whole pieces
// within `room` bytes from `from`, the rest zero.
void idr_fill_short(const uint8_t *from, uint64_t room, uint8_t *scratch, uint32_t n,
                    const char *pieces);

// Inline throughout, like TlvDecoder, so that its state stays in registers.
class IdrDecoder {
public:
    IdrDecoder(const void *in, uint32_t in_len, tarn_idl_alloc_fn alloc, void *alloc_ctx)
        : in_(static_cast<const uint8_t *>(in)), len_(in ? in_len : 0), alloc_(alloc),
          alloc_ctx_(alloc_ctx) {}

    TARN_IDL_HOT void u8(uint8_t *dst) { scalar(dst, 1, 1); }
    TARN_IDL_HOT void u16(uint16_t *dst) { scalar(dst, 2, 2); }
    TARN_IDL_HOT void u32(uint32_t *dst) { scalar(dst, 4, 4); }
    TARN_IDL_HOT void u64(uint64_t *dst) { scalar(dst, 8, 4); }
    TARN_IDL_HOT void count(uint32_t *dst) { scalar(dst, 4, 4); }

    template <class R>
    void record(R *dst, IdrDecodeFn<R> dec)
    {
        if (err_) return;
        if (!align(4)) return;
        int32_t r = dec(dst, in_ + pos_, static_cast<uint32_t>(len_ - pos_), alloc_, alloc_ctx_);
        if (r < 0) return fail(r);
        pos_ += static_cast<uint32_t>(r);
    }

    // A nested record or array element decoded by its body on this same
    // decoder: it starts at a multiple of 4, so its own alignments and length
    // checks come out as they would in a decoder of its own. get fills a
    // cleared record; after a failure nothing more is read and what is left
    // of the record stays cleared.
    template <class R>
    TARN_IDL_HOT void nest(R *dst, void (*get)(IdrDecoder &, R *))
    {
        if (!align(4)) return;
        get(*this, dst);
    }

    // Kept apart from array() below, which it resembles: with a shared
    // helper taking the step as a lambda, the body was no longer inlined
    // into the loop (Cos decode 31 -> 40 ns).
    template <class R>
    void each(R ***elems, uint32_t count, void (*get)(IdrDecoder &, R *))
    {
        if (err_ || count == 0) return;
        if (uint64_t{count} > (len_ - pos_) / 4) return fail(TARN_IDL_E_GARBLED);
        auto *arr = static_cast<R **>(obtain(uint64_t{count} * sizeof(R *)));
        if (!arr) return;
        *elems = arr;
        for (uint32_t i = 0; i < count && !err_; ++i) {
            if (!align(4)) return;
            auto *e = static_cast<R *>(obtain_uncleared(sizeof(R)));
            if (!e) return;
            *e = R{};
            arr[i] = e;
            get(*this, e);
        }
    }

    TARN_IDL_HOT void end_fixed() { align(4); }

    // The decoding side of IdrEncoder::open: the input itself when the
    // stretch is there, else `scratch` holding the whole fields that are (the
    // rest zero, as the record was) and the decode failed.
    TARN_IDL_HOT const uint8_t *open(uint32_t n, uint8_t *scratch, const char *pieces)
    {
        if (!err_ && len_ - pos_ >= n) {
            const uint8_t *p = in_ + pos_;
            pos_ += n;
            return p;
        }
        open_short(n, scratch, pieces);
        return scratch;
    }

    // The block is obtained and stored before the input is checked, so that a
    // short buffer fails with the block held by the record.
    TARN_IDL_HOT void bytes(uint8_t **ptr, uint32_t len)
    {
        if (err_ || len == 0) return;
        void *p = alloc_ ? alloc_(len, alloc_ctx_) : nullptr;
        if (!p) return fail(TARN_IDL_E_ALLOC);
        *ptr = static_cast<uint8_t *>(p);
        uint64_t padded = round4(uint64_t{len});
        if (len_ - pos_ < len) return fail(TARN_IDL_E_GARBLED);
        copy_bytes(static_cast<uint8_t *>(p), in_ + pos_, len);
        if (len_ - pos_ < padded) return fail(TARN_IDL_E_GARBLED);
        pos_ += padded;
    }

    template <class R>
    void array(R ***elems, uint32_t count, IdrDecodeFn<R> dec)
    {
        if (err_ || count == 0) return;
        // Every element takes at least 4 bytes.
        if (uint64_t{count} > (len_ - pos_) / 4) return fail(TARN_IDL_E_GARBLED);
        auto *arr = static_cast<R **>(obtain(uint64_t{count} * sizeof(R *)));
        if (!arr) return;
        *elems = arr;
        for (uint32_t i = 0; i < count && !err_; ++i) {
            // Aligned before the element is taken, so that the decoder runs
            // (and clears it) for every element the array holds.
            if (!align(4)) return;
            auto *e = static_cast<R *>(obtain_uncleared(sizeof(R)));
            if (!e) return;
            arr[i] = e;
            record(e, dec);
        }
    }

    int32_t result() const { return err_ ? err_ : static_cast<int32_t>(pos_); }

private:
    // After an earlier failure the stretch reads as zeros, which is what the
    // record already holds there, and that failure stands.
    TARN_IDL_HOT void open_short(uint32_t n, uint8_t *scratch, const char *pieces)
    {
        idr_fill_short(in_ + pos_, err_ ? 0 : len_ - pos_, scratch, n, pieces);
        if (!err_) fail(TARN_IDL_E_GARBLED);
    }
    TARN_IDL_HOT void fail(int32_t code) { err_ = code; }
    TARN_IDL_HOT bool align(uint32_t a)
    {
        if (err_) return false;
        uint64_t to = (pos_ + a - 1) / a * a;
        if (to > len_) {
            fail(TARN_IDL_E_GARBLED);
            return false;
        }
        pos_ = to;
        return true;
    }
    TARN_IDL_HOT void *obtain(uint64_t size)
    {
        return decoder_block(alloc_, alloc_ctx_, size, true, err_);
    }
    TARN_IDL_HOT void *obtain_uncleared(uint64_t size)
    {
        return decoder_block(alloc_, alloc_ctx_, size, false, err_);
    }

    template <class T>
    TARN_IDL_HOT void scalar(T *dst, uint32_t width, uint32_t alignment)
    {
        if (!align(alignment)) return;
        if (len_ - pos_ < width) return fail(TARN_IDL_E_GARBLED);
        *dst = static_cast<T>(load_le(in_ + pos_, width));
        pos_ += width;
    }

    const uint8_t *in_;
    uint64_t len_;
    tarn_idl_alloc_fn alloc_;
    void *alloc_ctx_;
    uint64_t pos_ = 0;
    int32_t err_ = 0;
};

// --- Choices -----------------------------------------------------------

// One member of a choice, with its functions taking untyped records so that
// the envelope can dispatch on the discriminant.
struct ChoiceMember {
    uint32_t record_size;
    uint32_t map_size;
    uint32_t (*tlv_encode)(const void *rec, const void *map, void *out, uint32_t out_len);
    int32_t (*tlv_decode)(void *rec, void *map, const void *in, uint32_t in_len,
                          tarn_idl_alloc_fn alloc, void *ctx);
    void (*tlv_release)(void *rec, void *map, tarn_idl_free_fn free_fn, void *ctx);
    uint32_t (*idr_encode)(const void *rec, void *out, uint32_t out_len);
    int32_t (*idr_decode)(void *rec, const void *in, uint32_t in_len, tarn_idl_alloc_fn alloc,
                          void *ctx);
    void (*idr_release)(void *rec, tarn_idl_free_fn free_fn, void *ctx);
};

struct ChoiceTable {
    uint32_t limit;                       // discriminants below this are valid
    const ChoiceMember *const *members;   // limit entries; null: no member
};

template <class R>
using IdrReleaseFn = void (*)(R *, tarn_idl_free_fn, void *);

// The entry of one member type, with typed calls behind untyped entry points.
template <class R, class M, TlvEncodeFn<R, M> TE, TlvDecodeFn<R, M> TD, TlvReleaseFn<R, M> TR,
          IdrEncodeFn<R> IE, IdrDecodeFn<R> ID, IdrReleaseFn<R> IR>
inline constexpr ChoiceMember choice_member = {
    sizeof(R),
    sizeof(M),
    [](const void *r, const void *m, void *o, uint32_t l) -> uint32_t {
        return TE(static_cast<const R *>(r), static_cast<const M *>(m), o, l);
    },
    [](void *r, void *m, const void *i, uint32_t l, tarn_idl_alloc_fn a, void *c) -> int32_t {
        return TD(static_cast<R *>(r), static_cast<M *>(m), i, l, a, c);
    },
    [](void *r, void *m, tarn_idl_free_fn f, void *c) {
        TR(static_cast<R *>(r), static_cast<M *>(m), f, c);
    },
    [](const void *r, void *o, uint32_t l) -> uint32_t {
        return IE(static_cast<const R *>(r), o, l);
    },
    [](void *r, const void *i, uint32_t l, tarn_idl_alloc_fn a, void *c) -> int32_t {
        return ID(static_cast<R *>(r), i, l, a, c);
    },
    [](void *r, tarn_idl_free_fn f, void *c) { IR(static_cast<R *>(r), f, c); },
};

// The envelope's table, generated from its description.
extern const ChoiceTable rts_msg_choice;

}  // namespace tarn::idl

#endif  // TARN_LIBTARN_IDL_RUNTIME_H

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "libtarn/gencfg/gencfg_internal.h"
#include "libtarn/os/os.h"
#include "libtarn/rtslib/msg_io_internal.h"
#include "libtarn/rtslib/objects/request.h"
#include <tarn/idl.h>
#include <tarn/rtslib_msg.h>

namespace {

// Received records are never trusted to be small: a copy larger than this
// (besides the blob room) is refused rather than attempted.
constexpr size_t kCopyLimit = 64u << 20;

bool expects_reply(uint8_t op)
{
    return op == RTSLIB_GENCFG_OP_GET || op == RTSLIB_GENCFG_OP_GETNEXT ||
           op == RTSLIB_GENCFG_OP_ADD_GET || op == RTSLIB_GENCFG_OP_CHANGE_GET;
}

// Places blocks one after another in a buffer; with no buffer it only counts,
// so one walk sizes the block and a second fills it.
class Carver {
public:
    explicit Carver(uint8_t *base) : base_(base) {}
    void *take(size_t n, size_t align)
    {
        used_ = (used_ + align - 1) & ~(align - 1);
        void *at = base_ != nullptr ? base_ + used_ : nullptr;
        used_ += n;
        if (used_ > kCopyLimit + RTSLIB_GENCFG_BLOB_INFLATED_MAX) ok_ = false;
        return at;
    }
    template <typename T> T *take_array(size_t n)
    {
        return static_cast<T *>(take(n * sizeof(T), alignof(T)));
    }
    size_t used() const { return used_; }
    bool ok() const { return ok_; }
    void fail() { ok_ = false; }

private:
    uint8_t *base_;
    size_t used_ = 0;
    bool ok_ = true;
};

// Copies an array of records into `c` and points `out` at the copy.
template <typename T, typename Extra>
void copy_array(Carver &c, T **src, uint32_t count, T ***out, Extra &&extra)
{
    if (count == 0) return;
    if (src == nullptr || count > kCopyLimit / sizeof(T)) return c.fail();
    T **slots = c.take_array<T *>(count);
    T *entries = c.take_array<T>(count);
    for (uint32_t i = 0; i < count && c.ok(); ++i) {
        if (src[i] == nullptr) return c.fail();
        if (entries != nullptr) {
            entries[i] = *src[i];
            slots[i] = &entries[i];
        }
        extra(c, *src[i], entries != nullptr ? &entries[i] : nullptr);
    }
    if (out != nullptr) *out = slots;
}

// Lays out (dst null: sizes) a copy of `src` whose blob is left as room for
// the inflated bytes. Returns the blob room, or nullptr when only sizing.
uint8_t *lay_out_copy(Carver &c, const gencfg_msg_t &src, gencfg_msg_t *dst)
{
    auto *msg = static_cast<gencfg_msg_t *>(c.take(sizeof(gencfg_msg_t), alignof(std::max_align_t)));
    if (dst != nullptr) {
        *msg = src;
        // Header options do not travel with configuration objects.
        msg->hdr.info = nullptr;
        msg->hdr.info_count = 0;
        msg->deps = nullptr;
        msg->peers = nullptr;
        msg->ifd_info = nullptr;
        msg->key = nullptr;
    }
    const auto none = [](Carver &, auto &, auto *) {};
    if (src.key_len > 0) {
        if (src.key == nullptr || src.key_len > kCopyLimit) c.fail();
        auto *key = c.take_array<uint8_t>(src.key_len);
        if (key != nullptr && c.ok()) {
            std::memcpy(key, src.key, src.key_len);
            msg->key = key;
        }
    }
    copy_array(c, src.peers, src.peers_count, msg != nullptr ? &msg->peers : nullptr, none);
    copy_array(c, src.deps, src.deps_count, msg != nullptr ? &msg->deps : nullptr,
               [](Carver &cc, const gencfg_depinfo_t &from, gencfg_depinfo_t *to) {
                   if (from.data_len > 0 && (from.data == nullptr || from.data_len > kCopyLimit))
                       return cc.fail();
                   auto *data = cc.take_array<uint8_t>(from.data_len);
                   if (to != nullptr && cc.ok()) {
                       if (from.data_len > 0) std::memcpy(data, from.data, from.data_len);
                       to->data = from.data_len > 0 ? data : nullptr;
                   }
               });
    copy_array(c, src.ifd_info, src.ifd_info_count, msg != nullptr ? &msg->ifd_info : nullptr,
               none);
    return c.take_array<uint8_t>(RTSLIB_GENCFG_BLOB_INFLATED_MAX);
}

// A received record carries only the peer entries in use, whatever capacity
// its sender had: the capacity is cut to what arrived, so that searches that
// go by capacity stay inside the array.
void trim_received(gencfg_msg_t *m)
{
    if (m->peer_capacity > m->peers_count) m->peer_capacity = static_cast<uint8_t>(m->peers_count);
}

// The inflated copy of a received record: on success *msg_inout is the copy
// and the received record is released; on failure it stays, without a blob.
int decompress_record(rtslib_cookie *h, gencfg_msg_t **msg_inout)
{
    gencfg_msg_t *src = *msg_inout;
    if (h->blob_decompress_fn == nullptr) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Compression was not initialized for rtslib\n");
        src->blob_len = 0;
        return EOPNOTSUPP;
    }
    Carver sizing(nullptr);
    lay_out_copy(sizing, *src, nullptr);
    if (!sizing.ok() || (src->blob_len > 0 && src->blob == nullptr)) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Failed to duplicate msg for decompressed blob\n");
        src->blob_len = 0;
        return EINVAL;
    }
    auto *block = static_cast<uint8_t *>(rtslib_size_alloc(h, static_cast<uint32_t>(sizing.used())));
    if (block == nullptr) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Failed to allocate memory for duplicated gencfg_msg\n");
        rtslib_err(h, RTSLIB_LOG_ERROR, "Failed to duplicate msg for decompressed blob\n");
        src->blob_len = 0;
        return ENOMEM;
    }
    Carver filling(block);
    auto *dup = reinterpret_cast<gencfg_msg_t *>(block);
    uint8_t *room = lay_out_copy(filling, *src, dup);
    uint32_t out_len = RTSLIB_GENCFG_BLOB_INFLATED_MAX;
    int rc = h->blob_decompress_fn(room, &out_len, src->blob, src->blob_len);
    rtslib_err(h, RTSLIB_LOG_DEBUG, "Gencfg blob was decompressed from %ld to %ld bytes (rc %d)\n",
               static_cast<long>(src->blob_len), static_cast<long>(out_len), rc);
    // A hook claiming more than the room it was given has written past it
    // or lies; either way its output is not used.
    if (rc == 0 && out_len > RTSLIB_GENCFG_BLOB_INFLATED_MAX) rc = EOVERFLOW;
    if (rc != 0) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Failed to decompress blob (rc %d)\n", rc);
        rtslib_msg_free(h, block);
        src->blob_len = 0;
        return rc;
    }
    dup->blob = room;
    dup->blob_len = out_len;
    // The blob in hand is plain now; handing the record on (or copying it
    // into an object that is sent again) must not inflate it twice.
    dup->flags &= ~RTSLIB_GENCFG_F_COMPRESSED;
    rtslib_msg_idl_release(h, src);
    *msg_inout = dup;
    return 0;
}

// The object's blob swapped for its compressed form for one request.
class CompressedBlob {
public:
    CompressedBlob(rtslib_cookie *h, gencfg_msg_t *g) : h_(h), g_(g) {}
    ~CompressedBlob()
    {
        if (out_ == nullptr) return;
        rtslib_msg_free(h_, out_);
        g_->blob = saved_blob_;
        g_->blob_len = saved_len_;
    }
    CompressedBlob(const CompressedBlob &) = delete;
    CompressedBlob &operator=(const CompressedBlob &) = delete;

    int run()
    {
        if (h_->blob_compress_fn == nullptr) {
            rtslib_err(h_, RTSLIB_LOG_ERROR, "Compression was not initialized for rtslib\n");
            return EOPNOTSUPP;
        }
        if (g_->blob == nullptr || g_->blob_len == 0) return 0;
        auto *out = static_cast<uint8_t *>(rtslib_size_alloc(h_, g_->blob_len));
        if (out == nullptr) {
            rtslib_err(h_, RTSLIB_LOG_ERROR, "Failed to allocate memory for compressed blob\n");
            return ENOMEM;
        }
        uint32_t out_len = g_->blob_len;
        int rc = h_->blob_compress_fn(out, &out_len, g_->blob, g_->blob_len);
        if (rc == 0 && out_len > g_->blob_len) rc = EOVERFLOW;
        if (rc != 0) {
            rtslib_err(h_, RTSLIB_LOG_ERROR, "Failed to compress gencfg blob of %d bytes (rc %d)\n",
                       static_cast<int>(g_->blob_len), rc);
            rtslib_msg_free(h_, out);
            return rc;
        }
        rtslib_err(h_, RTSLIB_LOG_DEBUG, "Gencfg blob was compressed from %ld to %ld bytes (rc %d)\n",
                   static_cast<long>(g_->blob_len), static_cast<long>(out_len), rc);
        out_ = out;
        saved_blob_ = g_->blob;
        saved_len_ = g_->blob_len;
        g_->blob = out;
        g_->blob_len = out_len;
        return 0;
    }

private:
    rtslib_cookie *h_;
    gencfg_msg_t *g_;
    uint8_t *out_ = nullptr;
    uint8_t *saved_blob_ = nullptr;
    uint32_t saved_len_ = 0;
};

bool key_ok(const gencfg_msg_t &g, uint8_t op)
{
    if ((g.flags & RTSLIB_GENCFG_F_KEY) == 0) return true;
    const bool has_key = g.key != nullptr;
    const bool has_len = g.key_len != 0;
    return op == RTSLIB_GENCFG_OP_GETNEXT ? has_key == has_len : has_key && has_len;
}

void fill_request(gencfg_msg_t &req, const gencfg_msg_t &g, uint8_t op)
{
    tarn::init_header(req.hdr, RTS_GENCFG_VERSION, RTS_MSG_GENCFG, op, 0);
    req.major_type = g.major_type;
    req.minor_type = g.minor_type;
    req.value3 = g.value3;
    req.value4 = g.value4;
    req.flags = g.flags;
    if (g.blob != nullptr && g.blob_len > 0) {
        req.blob = g.blob;
        req.blob_len = g.blob_len;
    }
    if (g.flags & RTSLIB_GENCFG_F_KEY) {
        req.key = g.key;
        req.key_len = g.key_len;
    }
    if (g.flags & RTSLIB_GENCFG_F_DEPS) {
        req.deps = g.deps;
        req.deps_count = g.deps_count;
    }
    if (g.peers != nullptr) {
        req.peers = g.peers;
        req.peers_count = g.peers_count;
    }
    req.peer_capacity = g.peer_capacity;
    if (g.flags & RTSLIB_GENCFG_F_EXTRA) req.extra_value = g.extra_value;
}

// A read object takes the reply's fields; its lists and blob then point into
// the reply.
void copy_back(gencfg_msg_t &g, const gencfg_msg_t &r)
{
    if (r.blob_len != 0) g.blob = r.blob;
    if (r.flags & RTSLIB_GENCFG_F_KEY) g.key = r.key;
    if (r.flags & RTSLIB_GENCFG_F_DEPS) g.deps = r.deps;
    g.major_type = r.major_type;
    g.minor_type = r.minor_type;
    g.blob_len = r.blob_len;
    g.key_len = r.key_len;
    g.deps_count = r.deps_count;
    g.extra_value = r.extra_value;
    g.flags = r.flags;
    g.value3 = r.value3;
    g.value4 = r.value4;
    g.peers_count = r.peers_count;
    g.peers = r.peers;
}

struct Io {
    rtslib_cookie *h;
    uint32_t *seq;
    void *ctx;
    rtslib_gencfg_alloc_fn alloc;
    rtslib_gencfg_free_fn free_fn;
    rtslib_gencfg_write_fn write;
    rtslib_gencfg_read_fn read;

    bool custom() const { return write != nullptr || read != nullptr; }
    void *get(uint32_t size) const
    {
        if (alloc == nullptr) return rtslib_size_alloc(h, size);
        void *p = alloc(ctx, size);
        if (p != nullptr) std::memset(p, 0, size);
        return p;
    }
    void put(void *p) const
    {
        if (free_fn != nullptr) free_fn(ctx, p);
        else rtslib_msg_free(h, p);
    }
};

// Writes (and reads the reply of) a request through the caller's functions,
// where one is given, and the handle's otherwise.
int exchange_custom(const Io &io, gencfg_msg_t *req, gencfg_msg_t **reply)
{
    rtslib_cookie *h = io.h;
    void *buf = nullptr;
    uint32_t len = 0;
    int rc = rtslib_msg_idl_encode(h, req, nullptr, &buf, &len);
    if (rc != 0) return rc;
    rc = io.write != nullptr ? io.write(io.ctx, buf, len) : rtslib_write(h, buf, len);
    rtslib_msg_free(h, buf);
    if (rc != 0 || reply == nullptr) return rc;
    void *raw = nullptr;
    uint32_t raw_len = 0;
    if (io.read != nullptr) {
        rc = io.read(io.ctx, &raw, &raw_len);
    } else {
        rc = rtslib_long_msg_read(h, &raw, &raw_len);
    }
    if (rc != 0) return rc;
    void *rec = nullptr;
    rc = raw != nullptr ? rtslib_msg_idl_decode(h, raw, raw_len, &rec, nullptr) : EIO;
    if (io.read != nullptr) io.put(raw);
    else rtslib_msg_free(h, raw);
    if (rc != 0) return rc;
    if (rec == nullptr) return tarn::missing_record(h, RTS_MSG_GENCFG);
    if (static_cast<gencfg_msg_t *>(rec)->hdr.type != RTS_MSG_GENCFG) {
        rtslib_msg_idl_release(h, rec);
        return EIO;
    }
    *reply = static_cast<gencfg_msg_t *>(rec);
    return 0;
}

// Everything but the blob and key fits in this: at most 64 peers and 40
// dependencies with their 3134 data bytes, and the headers.
constexpr uint32_t kRequestSlack = 64u * 1024;

int exchange(const Io &io, gencfg_msg_t *req, gencfg_msg_t **reply)
{
    tarn::os::make_room_for_message(io.h->fd, req->blob_len + req->key_len + kRequestSlack);
    if (io.seq != nullptr) req->hdr.seq = ++*io.seq;
    if (io.custom()) {
        if (io.seq == nullptr) req->hdr.seq = ++io.h->seq;
        return exchange_custom(io, req, reply);
    }
    tarn::Answer a;
    a.stamp = io.seq == nullptr;
    if (reply != nullptr) {
        a.read = tarn::Answer::Read::any_length;
        a.record_out = reinterpret_cast<void **>(reply);
    }
    return tarn::send_idl(io.h, &req->hdr, a);
}

int export_object(const Io &io, gencfg_msg_t *g, uint8_t op, gencfg_msg_t **reply_out)
{
    rtslib_cookie *h = io.h;
    if ((g->flags & RTSLIB_GENCFG_F_DEPS) && (g->deps == nullptr || g->deps_count == 0))
        return EINVAL;
    CompressedBlob compressed(h, g);
    if ((g->flags & RTSLIB_GENCFG_F_COMPRESSED) &&
        (op == RTSLIB_GENCFG_OP_ADD || op == RTSLIB_GENCFG_OP_CHANGE)) {
        if (int rc = compressed.run(); rc != 0) return rc;
    }
    if (g->blob_len >= RTSLIB_GENCFG_BLOB_MAX) {
        rtslib_err(h, RTSLIB_LOG_ERROR, "Gencfg blob is too large (%d bytes)\n",
                   static_cast<int>(g->blob_len));
        return ENOSPC;
    }
    if (!key_ok(*g, op)) return EINVAL;
    auto *req = static_cast<gencfg_msg_t *>(io.get(sizeof(gencfg_msg_t)));
    if (req == nullptr) return ENOMEM;
    fill_request(*req, *g, op);
    gencfg_msg_t *reply = nullptr;
    int rc = exchange(io, req, expects_reply(op) ? &reply : nullptr);
    io.put(req);
    if (rc != 0 || reply == nullptr) return rc;
    trim_received(reply);
    // A refusal comes back as an answer carrying the kernel's error and
    // nothing of the object.
    if (reply->hdr.error != 0) {
        rc = tarn::os::kernel_errno(reply->hdr.error);
        rtslib_msg_idl_release(h, reply);
        return rc;
    }
    if ((reply->flags & RTSLIB_GENCFG_F_COMPRESSED) && reply->blob_len > 0) {
        const int drc = decompress_record(h, &reply);
        if (drc != 0 && op != RTSLIB_GENCFG_OP_GETNEXT) {
            rtslib_msg_idl_release(h, reply);
            return drc;
        }
    }
    *reply_out = reply;
    if (op == RTSLIB_GENCFG_OP_GET || op == RTSLIB_GENCFG_OP_GETNEXT) copy_back(*g, *reply);
    return 0;
}

}  // namespace

extern "C" {

int rtslib_gencfg_op_export(rtslib_cookie *h, gencfg_msg_t *g, uint8_t op, gencfg_msg_t **reply_out,
                            void *, uint32_t *seq, void *io_ctx, rtslib_gencfg_alloc_fn alloc,
                            rtslib_gencfg_free_fn free_fn, rtslib_gencfg_write_fn write,
                            rtslib_gencfg_read_fn read)
{
    if (reply_out != nullptr) *reply_out = nullptr;
    if (h == nullptr || g == nullptr || (expects_reply(op) && reply_out == nullptr)) return EINVAL;
    const Io io{h, seq, io_ctx, alloc, free_fn, write, read};
    return export_object(io, g, op, reply_out);
}

#define TARN_GENCFG_ENTRY(name, op)                                                        \
    int name(rtslib_cookie *h, gencfg_msg_t *g)                                            \
    {                                                                                      \
        return rtslib_gencfg_op_export(h, g, op, nullptr, nullptr, nullptr, nullptr,       \
                                       nullptr, nullptr, nullptr, nullptr);                \
    }
TARN_GENCFG_ENTRY(rtslib_gencfg_add, RTSLIB_GENCFG_OP_ADD)
TARN_GENCFG_ENTRY(rtslib_gencfg_change, RTSLIB_GENCFG_OP_CHANGE)
TARN_GENCFG_ENTRY(rtslib_gencfg_delete, RTSLIB_GENCFG_OP_DELETE)
#undef TARN_GENCFG_ENTRY

int rtslib_gencfg_get(rtslib_cookie *h, gencfg_msg_t *g, uint8_t op, gencfg_msg_t **reply_out,
                      void *reply_arg)
{
    return rtslib_gencfg_op_export(h, g, op, reply_out, reply_arg, nullptr, nullptr, nullptr,
                                   nullptr, nullptr, nullptr);
}

int rtslib_gencfg_add_and_get(rtslib_cookie *h, gencfg_msg_t *g, gencfg_msg_t **reply_out,
                              void *reply_arg)
{
    return rtslib_gencfg_get(h, g, RTSLIB_GENCFG_OP_ADD_GET, reply_out, reply_arg);
}

int rtslib_gencfg_change_and_get(rtslib_cookie *h, gencfg_msg_t *g, gencfg_msg_t **reply_out,
                                 void *reply_arg)
{
    return rtslib_gencfg_get(h, g, RTSLIB_GENCFG_OP_CHANGE_GET, reply_out, reply_arg);
}

int rtslib_gencfg_async(rtslib_cookie *h, gencfg_msg_t **msg_inout)
{
    if (h == nullptr || msg_inout == nullptr || *msg_inout == nullptr) return EINVAL;
    trim_received(*msg_inout);
    if (((*msg_inout)->flags & RTSLIB_GENCFG_F_COMPRESSED) == 0) return 0;
    return decompress_record(h, msg_inout);
}

}  // extern "C"

// Allocation failures in calls that talk to the kernel emulator: opening a
// handle, route and table requests, reads, interface lookups and lists, and
// the asynchronous machinery. Each run gets a fresh handle, so that an
// answer left unread by a failed call cannot confuse the next run.
#include <ifaddrs.h>
#include <net/if.h>

#include <cerrno>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fake_daemon.h"
#include "gencfg_support.h"
#include "kernel_sweep.h"
#include <tarn/tarn.h>
#ifdef TARN_ALLOC_SWEEP_COMPRESS
#include <tarn/compress.h>
#endif

namespace {

using tarn::test::command;
using tarn::test::alloc::code_of;
using tarn::test::alloc::errno_of;
using tarn::test::alloc::KernelSweep;
using tarn::test::alloc::kPrefix;
using tarn::test::alloc::QuietSink;
using tarn::test::alloc::Route;
using tarn::test::alloc::Row;
using tarn::test::alloc::sweep;
using tarn::test::alloc::wrong_unless;

TEST_F(KernelSweep, HandleRoutesAndReads)
{
    rtslib_cookie *made = nullptr;
    rt_msg_t *rt = nullptr;
    rtb_msg_t *rtb = nullptr;
    void *map = nullptr;
    void *msg = nullptr;
    uint32_t len = 0;
    uint32_t ack = 0;
    const uint8_t added[] = {10, 77, 0, 0};
    Route route;  // an add that asks for no answer
    alignas(8) static uint8_t arena[16384];
    auto release = [&] {
        rtslib_msg_idl_release(h_, msg);
        msg = nullptr;
    };
    // A sequence mismatch still delivers the message: a success here.
    auto delivered = [](int rc) { return rc == RTSLIB_SEQ_MISMATCH ? 0 : rc; };
    sweep({
        {.name = "rtslib_open",
         .call = [&] { return code_of(made = rtslib_open(0)); },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_close(made); made = nullptr; },
         .kept = 1},
        {.name = "rtslib_open_set_liberr",
         .call = [&] { return code_of(made = rtslib_open_set_liberr(0, &sink_, QuietSink::sink)); },
         .check = [&] { return wrong_unless(rtslib_get_rtsock_version_info(made) != nullptr); },
         .failure = {ENOMEM},
         .cleanup = [&] { rtslib_close(made); made = nullptr; },
         // A failed open frees the record only; its read buffer stays.
         .kept = 1},
        on_handle(
            {.name = "rtslib_rtm_add (acknowledged)",
             .call =
                 [&] {
                     return rtslib_rtm_add(h_, 0, TARN_AF_INET, 1, 0, 1, 0, 0, 0, 0, 0, 0, added,
                                           16, nullptr, &ack);
                 },
             .check =
                 [&] {
                     int rc = rtslib_rtm_get_by_prefix(h_, TARN_AF_INET, added, 16, RTS_OP_GET,
                                                       &rt, nullptr);
                     rtslib_msg_idl_release(h_, rt);
                     return rc;
                 },
             .failure = {ENOMEM},
             .cleanup =
                 [&] {
                     rtslib_rtm_delete_prefix(h_, 0, TARN_AF_INET, 1, 0, added, 16, 0);
                 }}),
        on_handle(
            {.name = "rtslib_rtm_get",
             .call =
                 [&] {
                     return rtslib_rtm_get(h_, 0, TARN_AF_INET, kPrefix, 16, 0, 0, 0, 0,
                                           RTS_OP_GET, &rt, &map);
                 },
             .check = [&] { return wrong_unless(rt->plen == 16 && rt->prefix[1] == 99); },
             .failure = {ENOMEM},
             .cleanup = [&] { rtslib_msg_idl_release(h_, rt); rt = nullptr; }}),
        on_handle(
            {.name = "rtslib_rtbm_get_by_name",
             .call = [&] { return rtslib_rtbm_get_by_name(h_, TARN_AF_INET, "default", &rtb, &map); },
             .check = [&] { return wrong_unless(rtb->hdr.type == RTS_MSG_RTTABLE); },
             .failure = {ENOMEM},
             .cleanup = [&] { rtslib_msg_idl_release(h_, rtb); rtb = nullptr; }}),
        on_handle({.name = "rtslib_msg_write_idl",
                   .call = [&] { return rtslib_msg_write_idl(h_, &route.rt, &route.map); },
                   .failure = {ENOMEM}}),
        on_handle(
            {.name = "rtslib_long_msg_read",
             .setup = [&] { inject_route(); },
             .call = [&] { return delivered(rtslib_long_msg_read(h_, &msg, &len)); },
             .check = [&] { return wrong_unless(msg != nullptr && len > 12); },
             .failure = {ENOMEM},
             .cleanup = [&] { rtslib_msg_free(h_, msg); msg = nullptr; }}),
        on_handle(
            {.name = "rtslib_msg_read_idl",
             .setup = [&] { inject_route(); },
             .call = [&] { return rtslib_msg_read_idl(h_, &msg, &map); },
             .check = [&] { return Route::compare(static_cast<rt_msg_t *>(msg)); },
             .failure = {ENOMEM},
             .cleanup = release}),
        on_handle(
            {.name = "rtslib_long_msg_read_idl_pa",
             .setup = [&] { inject_route(); },
             .call = [&] { return rtslib_long_msg_read_idl_pa(h_, &msg, &map, arena, sizeof arena); },
             .check = [&] { return Route::compare(static_cast<rt_msg_t *>(msg)); },
             .failure = {ENOMEM}}),
        on_handle(
            {.name = "rtslib_long_msg_read_idl",
             .setup = [&] { inject_route(); },
             .call = [&] { return rtslib_long_msg_read_idl(h_, &msg, &map); },
             .check = [&] { return Route::compare(static_cast<rt_msg_t *>(msg)); },
             .failure = {ENOMEM},
             .cleanup = release}),
    });
}

TEST_F(KernelSweep, Interfaces)
{
    ifdev_msg_t *dev = nullptr;
    uint32_t len = 0;
    rtslib_msg_list *list = nullptr;
    struct ifaddrs *ifa = nullptr;
    struct if_nameindex *names = nullptr;
    unsigned index = 0;
    char name[IF_NAMESIZE > 60 ? IF_NAMESIZE : 60] = {};
    auto free_list = [&] {
        rtslib_msg_list_free(h_, list);
        list = nullptr;
    };
    auto count_list = [&](uint16_t want) { return wrong_unless(list->count == want); };
    sweep({
        on_handle(
            {.name = "rtslib_ifdm_get_by_name",
             .call = [&] { return rtslib_ifdm_get_by_name(h_, "em0", RTS_OP_GET, &dev, &len); },
             .check = [&] { return wrong_unless(dev->ifdm_index == 2); },
             .failure = {ENOMEM},
             .cleanup = [&] { rtslib_msg_idl_release(h_, dev); dev = nullptr; }}),
        on_handle({.name = "rtslib_ifdm_get_all",
                   .call = [&] { return rtslib_ifdm_get_all(h_, &list); },
                   .check = [&] { return count_list(4); },
                   .failure = {ENOMEM},
                   .cleanup = free_list}),
        on_handle({.name = "rtslib_ifxm_get_all (addresses)",
                   .call = [&] { return rtslib_ifxm_get_all(h_, &list, RTSLIB_IFLIST_ADDRESSES); },
                   .check = [&] { return wrong_unless(list->count > 5); },
                   .failure = {ENOMEM},
                   .cleanup = free_list}),
        on_handle({.name = "rtslib_iflm_get_all",
                   .call = [&] { return rtslib_iflm_get_all(h_, &list); },
                   .check = [&] { return count_list(5); },
                   .failure = {ENOMEM},
                   .cleanup = free_list}),
        {.name = "wrl_getifaddrs",
         .call = [&] { return code_of(wrl_getifaddrs(&ifa)); },
         .check =
             [&] {
                 int n = 0;
                 for (struct ifaddrs *i = ifa; i != nullptr; i = i->ifa_next)
                     ++n;
                 return wrong_unless(n == 4);
             },
         // EAGAIN when the emulated sysctl cannot have its reply buffer: a
         // kernel that runs out of memory there answers as for a list that
         // grew, and the call says "try again".
         .failure = {ENOMEM, EAGAIN},
         .cleanup = [&] { wrl_freeifaddrs(ifa); ifa = nullptr; }},
        {.name = "if_nameindex",
         .call = [&] { return code_of(names = if_nameindex()); },
         .check =
             [&] {
                 int n = 0;
                 while (names[n].if_index != 0)
                     ++n;
                 return wrong_unless(n == 5 && names[1].if_index == 65 && std::string(names[1].if_name) == "em0");
             },
         .failure = {ENOMEM},
         .cleanup = [&] { if (names != nullptr) if_freenameindex(names); names = nullptr; }},
        // Any failure of these lookups is "no such interface".
        {.name = "if_indextoname",
         .call = [&] { return if_indextoname(67, name) != nullptr ? 0 : errno; },
         .check = [&] { return wrong_unless(std::string(name) == "ge-0/0/0.0"); },
         .failure = {ENXIO}},
        {.name = "if_nametoindex",
         .call = [&] { return (index = if_nametoindex("em0")) != 0 ? 0 : errno; },
         .check = [&] { return wrong_unless(index == 65); },
         .failure = {ENXIO}},
        {.name = "ifl_getindexbyifname",
         .call = [&] {
             int rc = ifl_getindexbyifname("em0.0");
             index = static_cast<unsigned>(rc);
             return rc >= 0 ? 0 : errno;
         },
         .check = [&] { return wrong_unless(index == 65); },
         .failure = {ENOMEM},
         .kept = 1},  // the read buffer of a handle whose open failed
    });
}

int route_handler(rtslib_cookie *h, void *arg, void *msg, void *)
{
    *static_cast<int *>(arg) = Route::compare(static_cast<rt_msg_t *>(msg)) == 0 ? 1 : -1;
    rtslib_msg_idl_release(h, msg);
    return 0;
}

void donor_changed(void *, uint8_t, uint8_t, const uint8_t *, uint16_t, uint16_t) {}

TEST_F(KernelSweep, Asynchronous)
{
    int fd = -1;
    int handled = 0;
    int cookie = 0;
    auto async = [&] { ASSERT_EQ(rtslib_set_async_info_nocontext(h_, &fd), 0); };
    uint8_t lo0[4] = {127, 0, 0, 1};
    ifa_msg_t donor_address{};  // lo0.0's address changed
    donor_address.ifam_af = TARN_AF_INET;
    donor_address.ifam_index = 64;
    donor_address.ifam_local = lo0;
    donor_address.ifam_local_len = sizeof lo0;
    evContext loop{};
    const uint8_t opaque[8] = {};
    void *reply = nullptr;
    sweep({
        on_handle({.name = "rtslib_set_async_context",
                   .setup = [&] { ASSERT_EQ(evCreate(&loop), 0); },
                   .call = [&] { return errno_of(rtslib_set_async_context(h_, loop)); },
                   .failure = {ENOMEM},
                   .cleanup = [&] { rtslib_destroy_async_context(h_); evDestroy(loop); }}),
        // The reply stands ready on the socket: the emulator answers no one.
        on_handle({.name = "rtslib_async_opaque_handle (with a reply)",
                   .setup = [&] { inject_route(); },
                   .call =
                       [&] {
                           return rtslib_async_opaque_handle(h_, 1, opaque, sizeof opaque, &reply, 1,
                                                             RTSLIB_ASYNC_OPAQUE_WANT_REPLY);
                       },
                   .check = [&] { return wrong_unless(reply != nullptr); },
                   .failure = {ENOMEM},
                   .cleanup = [&] { rtslib_msg_free(h_, reply); reply = nullptr; }}),
        on_handle({.name = "rtslib_set_async_info_nocontext",
                   .call = [&] { return code_of(rtslib_set_async_info_nocontext(h_, &fd)); },
                   .check = [&] { return wrong_unless(fd == h_->fd); },
                   .failure = {ENOMEM}}),
        on_handle({.name = "rtslib_create_async_context",
                   .call = [&] { return errno_of(rtslib_create_async_context(h_)); },
                   .check =
                       [&] {
                           evContext ev{};
                           return wrong_unless(rtslib_get_async_context(h_, &ev) == 0 && ev.opaque != nullptr);
                       },
                   .failure = {ENOMEM}}),
        on_handle({.name = "rtslib_rtm_async_register",
                   .setup = async,
                   .call = [&] { return code_of(rtslib_rtm_async_register(h_, &handled, route_handler)); },
                   .failure = {ENOMEM}}),
        on_handle({.name = "rtslib_ifsclim_async_register",
                   .setup = async,
                   .call = [&] { return errno_of(rtslib_ifsclim_async_register(h_, &handled, route_handler)); },
                   .failure = {ENOMEM}}),
        on_handle({.name = "rtslib_async_event_process",
                   .setup =
                       [&] {
                           async();
                           ASSERT_EQ(rtslib_rtm_async_register(h_, &handled, route_handler), 0);
                           handled = 0;
                           inject_route();
                       },
                   .call = [&] { return code_of(rtslib_async_event_process(h_)); },
                   .check = [&] { return wrong_unless(handled == 1); },
                   .failure = {ENOMEM}}),
        on_handle({.name = "rtslib_unnum_ifa_register_callback",
                   .setup = async,
                   .call = [&] { return errno_of(rtslib_unnum_ifa_register_callback(h_, donor_changed)); },
                   .failure = {ENOMEM}}),
        on_handle({.name = "rtslib_unnum_ifa_save_msg",
                   .setup =
                       [&] {
                           async();
                           ASSERT_EQ(rtslib_unnum_ifa_register_callback(h_, donor_changed), 0);
                           ASSERT_EQ(rtslib_unnum_ifa_register_interest(h_, 68, 64, TARN_AF_INET, 1, &cookie), 0);
                       },
                   .call = [&] { return rtslib_unnum_ifa_save_msg(h_, &donor_address); },
                   .failure = {-1},
                   .cleanup = [&] { rtslib_unnum_ifa_report(h_); },
                   .kept = 1}),
        on_handle({.name = "rtslib_unnum_ifa_register_interest",
                   .setup =
                       [&] {
                           async();
                           ASSERT_EQ(rtslib_unnum_ifa_register_callback(h_, donor_changed), 0);
                       },
                   .call =
                       [&] {
                           return errno_of(rtslib_unnum_ifa_register_interest(
                               h_, 68, 64, TARN_AF_INET, 1, &cookie));
                       },
                   .failure = {ENOMEM},
                   .kept = 1}),  // a donor's entry outlives the registry
    });
}

}  // namespace

namespace {

// A keyed configuration object with a compressible blob and a peer.
struct Config {
    uint8_t key[3] = {'k', 'e', 'y'};
    std::vector<uint8_t> blob = std::vector<uint8_t>(4000, 'x');
    gencfg_msg_t msg{};

    explicit Config(uint32_t flags = 0)
    {
        msg.major_type = 7;
        msg.minor_type = 1;
        msg.key = key;
        msg.key_len = sizeof key;
        msg.blob = blob.data();
        msg.blob_len = static_cast<uint32_t>(blob.size());
        msg.flags = RTSLIB_GENCFG_F_KEY | flags;
    }

    // 0 when `got` carries this object's blob, inflated.
    int compare(const gencfg_msg_t *got) const
    {
        return wrong_unless(got != nullptr && got->blob_len == blob.size() && std::equal(blob.begin(), blob.end(), got->blob));
    }
};

}  // namespace

TEST_F(KernelSweep, ConfigurationObjects)
{
    Config plain;
    Config packed(RTSLIB_GENCFG_F_COMPRESSED);
    gencfg_msg_t *reply = nullptr;
    const rtslib_gencfg_peer peer{1, RTSLIB_GENCFG_CHOICE_INDEX, 3};
    auto drop = [&](Config &c) {
        return [&] {
            rtslib_msg_idl_release(h_, reply);
            reply = nullptr;
            rtslib_gencfg_delete(h_, &c.msg);
        };
    };
    gencfg_msg_t probe{};  // a get copies the answer's fields (pointers into it) here
    // A request about the plain object, with the kernel holding it or not.
    auto about_plain = [&](const char *name, bool held, bool answered, std::function<int()> call) {
        return on_handle({.name = name,
                          .setup =
                              [&, held] {
                                  if (held) {
                                      ASSERT_EQ(rtslib_gencfg_add(h_, &plain.msg), 0);
                                  }
                                  probe = plain.msg;
                              },
                          .call = std::move(call),
                          .check = [&, answered] { return answered ? plain.compare(reply) : 0; },
                          .failure = {ENOMEM},
                          .cleanup = drop(plain)});
    };
    std::vector<Row> rows = {
        {.name = "rtslib_gencfg_create_peerinfo",
         .call = [&] { return rtslib_gencfg_create_peerinfo(&plain.msg, 4); },
         .check = [&] { return wrong_unless(plain.msg.peer_capacity == 4); },
         .failure = {-1},
         .cleanup = [&] { rtslib_gencfg_delete_peerinfo(&plain.msg); }},
        {.name = "rtslib_gencfg_create_depend",
         .call = [&] { return rtslib_gencfg_create_depend(&plain.msg); },
         .failure = {-1},
         .cleanup = [&] {
             rtslib_gencfg_delete_depend(&plain.msg);
             plain.msg.flags &= ~RTSLIB_GENCFG_F_DEPS;
         }},
        on_handle({.name = "rtslib_gencfg_add_and_get (with a peer)",
                   .setup =
                       [&] {
                           ASSERT_EQ(rtslib_gencfg_create_peerinfo(&plain.msg, 2), 0);
                           ASSERT_EQ(rtslib_gencfg_add_peerinfo(&plain.msg, &peer), 0);
                       },
                   .call = [&] { return rtslib_gencfg_add_and_get(h_, &plain.msg, &reply, nullptr); },
                   .check = [&] { return wrong_unless(plain.compare(reply) == 0 && reply->peers_count == 1); },
                   .failure = {ENOMEM},
                   .cleanup = [&, release = drop(plain)] {
                       release();
                       rtslib_gencfg_delete_peerinfo(&plain.msg);
                   }}),
        about_plain("rtslib_gencfg_add", false, false, [&] { return rtslib_gencfg_add(h_, &plain.msg); }),
        about_plain("rtslib_gencfg_change", true, false, [&] { return rtslib_gencfg_change(h_, &plain.msg); }),
        about_plain("rtslib_gencfg_change_and_get", true, true,
                    [&] { return rtslib_gencfg_change_and_get(h_, &plain.msg, &reply, nullptr); }),
        about_plain("rtslib_gencfg_get", true, true,
                    [&] { return rtslib_gencfg_get(h_, &probe, RTSLIB_GENCFG_OP_GET, &reply, nullptr); }),
        about_plain("rtslib_gencfg_delete", true, false, [&] { return rtslib_gencfg_delete(h_, &plain.msg); }),
        about_plain("rtslib_gencfg_op_export", false, false, [&] {
            return rtslib_gencfg_op_export(h_, &plain.msg, RTSLIB_GENCFG_OP_ADD, nullptr, nullptr, nullptr,
                                           nullptr, nullptr, nullptr, nullptr, nullptr);
        }),
    };
#ifdef TARN_ALLOC_SWEEP_COMPRESS
    auto zlib = [&] { rtslib_init_blob_compression(h_, tarn_zlib_compress, tarn_zlib_decompress); };
    // A received record whose blob is still deflated.
    gencfg_msg_t *received = nullptr;
    auto receive_packed = [&] {
        zlib();
        std::vector<uint8_t> deflated(8192);
        uint32_t n = static_cast<uint32_t>(deflated.size());
        ASSERT_EQ(tarn_zlib_compress(deflated.data(), &n, packed.blob.data(), static_cast<uint32_t>(packed.blob.size())), 0);
        received = tarn::test::received_gencfg(h_, packed.msg.flags, deflated.data(), n);
    };
    rows.insert(rows.end(), {
        on_handle({.name = "rtslib_gencfg_async (zlib)",
                   .setup = receive_packed,
                   .call = [&] { return rtslib_gencfg_async(h_, &received); },
                   .check = [&] { return packed.compare(received); },
                   .failure = {ENOMEM},
                   .cleanup = [&] { rtslib_msg_idl_release(h_, received); received = nullptr; }}),
        // Only adds and changes compress; what comes back is inflated.
        on_handle({.name = "rtslib_gencfg_add (zlib)",
                   .setup = zlib,
                   .call = [&] { return rtslib_gencfg_add(h_, &packed.msg); },
                   .check =
                       [&] {
                           probe = packed.msg;
                           int rc = rtslib_gencfg_get(h_, &probe, RTSLIB_GENCFG_OP_GET, &reply,
                                                      nullptr);
                           return rc != 0 ? rc : packed.compare(reply);
                       },
                   .failure = {ENOMEM},
                   .cleanup = drop(packed)}),
        on_handle({.name = "rtslib_gencfg_get (zlib)",
                   .setup =
                       [&] {
                           zlib();
                           ASSERT_EQ(rtslib_gencfg_add(h_, &packed.msg), 0);
                           probe = packed.msg;
                       },
                   .call = [&] { return rtslib_gencfg_get(h_, &probe, RTSLIB_GENCFG_OP_GET, &reply, nullptr); },
                   .check = [&] { return packed.compare(reply); },
                   .failure = {ENOMEM},
                   .cleanup = drop(packed)}),
    });
#endif
    sweep(rows);
}

namespace {

int sessions_accepted = 0;

tarn_session_funs session_funs()
{
    tarn_session_funs f{};
    f.tsf_connection_status = [](tarn_session_handle *, int, int status) {
        sessions_accepted += status == 0 ? 1 : 0;
    };
    f.tsf_want_write = [](tarn_session_handle *) {};
    f.tsf_write_drained = [](tarn_session_handle *) {};
    return f;
}

}  // namespace

TEST_F(KernelSweep, DaemonSessions)
{
    const tarn_session_funs funs = session_funs();
    tarn_session_handle *s = nullptr;
    std::unique_ptr<tarn::test::FakeDaemon> daemon;
    tarn_alias_request alias{};
    alias.al_key = 1;
    alias.al_family = TARN_FAMILY_INET;
    std::strcpy(alias.al_ifname, "em0");
    alias.al_route.rt_family = TARN_FAMILY_INET;
    alias.al_route.rt_prefix_len = 32;
    alias.al_route.rt_prefix[0] = 10;
    int queued = 0;
    // A session with the queueing writer, accepted by a daemon that reads
    // nothing, so that what the socket cannot take waits in the queue.
    auto accept_session = [&] {
        daemon = std::make_unique<tarn::test::FakeDaemon>();
        ASSERT_EQ(tarn_session_handle_alloc(&s, &funs), 0);
        ASSERT_EQ(tarn_session_connect(s, daemon->address(), 0), 0);
        ASSERT_TRUE(daemon->accept());
        daemon->send(TARN_MSG_CONNECTION_ANSWER, tarn::test::Bytes().u32(TARN_CONNECTION_ACCEPTED));
        sessions_accepted = 0;
        ASSERT_EQ(tarn_session_reply_get(s), 0);
        ASSERT_EQ(sessions_accepted, 1);
    };
    auto release = [&] {
        tarn_session_handle_free(s);
        s = nullptr;
        daemon.reset();
    };
    std::vector<Row> rows = {
        {.name = "tarn_session_handle_alloc",
         .call = [&] { return code_of(tarn_session_handle_alloc(&s, &funs)); },
         .check = [&] { return wrong_unless(tarn_session_handle_rtsock_descriptor(s) >= 0); },
         .failure = {ENOMEM},
         .cleanup = release,
         .kept = 1},  // the read buffer of its routing-socket handle, when that fails to open
        {.name = "tarn_alias_add",
         .setup = accept_session,
         .call = [&] { return code_of(tarn_alias_add(s, &alias, 5)); },
         .failure = {ENOMEM},
         .cleanup = release},
        {.name = "tarn_alias_delete",
         .setup = [&] { accept_session(); ASSERT_EQ(tarn_alias_add(s, &alias, 5), 0); },
         .call = [&] { return code_of(tarn_alias_delete(s, &alias, 6)); },
         .failure = {ENOMEM},
         .cleanup = release},
    };
    // Every request goes through the session's writer: with the socket full,
    // each one needs a block to wait in the queue.
    auto fill_queue = [&] {
        accept_session();
        daemon->shrink_receive_buffer(1);
        for (int i = 0; i < 100000 && tarn_session_queue_size(s) == 0; ++i)
            ASSERT_EQ(tarn_client_identify(s, "sweep"), 0);
        queued = tarn_session_queue_size(s);
        ASSERT_GT(queued, 0);
    };
    tarn_rt_request route{};
    route.rt_family = TARN_FAMILY_INET;
    route.rt_prefix_len = 8;
    route.rt_prefix[0] = 10;
    const uint8_t gateway[16] = {192, 0, 2, 9};
    const tarn_lsping_fec fec{0x0a000001, 32, 0};
    const tarn_bw_record bw{};
    const tarn_nbr_record nbr{};
    const tarn_ra_record ra{};
    const ipc_msg_t hdr{0, 0, TARN_MSG_MASTER_INDICATION, 0, 0};
    const std::vector<std::pair<const char *, std::function<int()>>> requests = {
        {"tarn_client_identify", [&] { return tarn_client_identify(s, "sweep"); }},
        {"tarn_client_msg_write", [&] { return tarn_client_msg_write(s, &hdr, nullptr); }},
        {"tarn_rt_add", [&] { return tarn_rt_add(s, &route); }},
        {"tarn_rt_delete", [&] { return tarn_rt_delete(s, &route); }},
        {"tarn_rt_lookup", [&] { return tarn_rt_lookup(s, &route); }},
        {"tarn_rt_table_locate", [&] { return tarn_rt_table_locate(s, "inet.0", 1); }},
        {"tarn_rt_change_gateway", [&] { return tarn_rt_change_gateway(s, 1, 2, 65, TARN_FAMILY_INET, gateway); }},
        {"tarn_master_indication", [&] { return tarn_master_indication(s); }},
        {"tarn_rr_restart", [&] { return tarn_rr_restart(s); }},
        {"tarn_cleanup_data", [&] { return tarn_cleanup_data(s); }},
        {"tarn_local_as_by_name", [&] { return tarn_local_as_by_name(s, "inet.0", 1); }},
        {"tarn_bw_update", [&] { return tarn_bw_update(s, &bw, 1); }},
        {"tarn_nbr_down_update", [&] { return tarn_nbr_down_update(s, &nbr, 1); }},
        {"tarn_session_protocol_register", [&] { return tarn_session_protocol_register(s, "sweep", nullptr, 1, 2); }},
        {"tarn_session_protocol_unregister", [&] { return tarn_session_protocol_unregister(s, 1, 2); }},
        {"tarn_rt_flash_register_request", [&] { return tarn_rt_flash_register_request(s, 1, 2, 3, 4, 5, nullptr); }},
        {"tarn_ra_add", [&] { return tarn_ra_add(s, &ra, 1); }},
        {"tarn_ra_delete", [&] { return tarn_ra_delete(s, &ra, 1); }},
        {"tarn_rsvp_lsp_lookup", [&] { return tarn_rsvp_lsp_lookup(s, "lsp", "path", "em0.0", 0, 1); }},
        {"tarn_rsvp_p2mp_lsp_lookup", [&] { return tarn_rsvp_p2mp_lsp_lookup(s, "lsp", nullptr, 1); }},
        {"tarn_ldp_fec_lookup", [&] { return tarn_ldp_fec_lookup(s, &fec, "", 1); }},
        {"tarn_bgp_fec_lookup", [&] { return tarn_bgp_fec_lookup(s, &fec, "", 1); }},
        {"tarn_vpn_pfx_lookup", [&] { return tarn_vpn_pfx_lookup(s, TARN_FAMILY_INET, gateway, 32, "vpn", 1); }},
        {"tarn_endpt_lookup", [&] { return tarn_endpt_lookup(s, TARN_FAMILY_INET, gateway, 32, "", 1); }},
        {"tarn_lspmon_lookup", [&] { return tarn_lspmon_lookup(s, "lsp", 1); }},
        {"tarn_static_lsp_lookup", [&] { return tarn_static_lsp_lookup(s, "lsp", 1); }},
        {"tarn_l2vpn_lookup", [&] { return tarn_l2vpn_lookup(s, "vpn", 1, 2, nullptr, 1); }},
        {"tarn_l2vpn_fec129_lookup", [&] { return tarn_l2vpn_fec129_lookup(s, "vpn", "sai", "tai", 1); }},
        {"tarn_l2ckt_lookup", [&] { return tarn_l2ckt_lookup(s, 0x0a000001, 7, nullptr, 1); }},
        {"tarn_ldp_p2mp_fec_lookup", [&] { return tarn_ldp_p2mp_fec_lookup(s, 0x0a000001, 7, "", 1); }},
        {"tarn_tdmpw_lookup", [&] { return tarn_tdmpw_lookup(s, 1); }},
        {"tarn_mdiagd_p2mp_request", [&] { return tarn_mdiagd_p2mp_request(s, 1); }},
    };
    for (const auto &[name, send] : requests)
        rows.push_back({.name = std::string(name) + " (queued)",
                        .setup = fill_queue,
                        .call = [&, send] { return code_of(send()); },
                        .check = [&] { return wrong_unless(tarn_session_queue_size(s) == queued + 1); },
                        .failure = {ENOMEM},
                        .cleanup = release});
    sweep(rows);
}

// watch: one handle in no-context mode, so that this loop polls the routing
// socket beside a signal descriptor and can tell a kernel that went away
// (hang-up) from one with nothing to say.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include <tarn/idl.h>
#include <tarn/rtslib_async.h>
#include <tarn/rtslib_msg.h>

#ifdef TARN_MONITOR_HAVE_COMPRESS
#include <tarn/compress.h>
#endif

#include "monitor.h"

namespace tarn::monitor {
namespace {

using RegisterFn = int (*)(rtslib_cookie *, void *, rtslib_async_handler_fn);

// One registration call and the message types it brings.
struct Registration {
    std::initializer_list<int> types;
    RegisterFn call;
};

// Flags 5 (bits 0 and 2) ask for both classes of families, addresses and
// system statistics.
const Registration kRegistrations[] = {
    {{1}, rtslib_rtbm_async_register},
    {{2}, rtslib_rtm_async_register},
    {{5}, rtslib_ifdm_async_register},
    {{6}, rtslib_iflm_async_register},
    {{7}, [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
         return rtslib_iffm_async_register(h, 5, a, f);
     }},
    {{8}, [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
         return rtslib_ifam_async_register(h, 5, a, f);
     }},
    {{10}, rtslib_rnhm_async_register},
    {{13}, rtslib_mgrm_async_register},
    {{14}, rtslib_dfwm_async_register},
    {{18}, rtslib_ifdest_async_register},
    {{20}, rtslib_ifdalm_async_register},
    {{22}, rtslib_dfwstatsm_async_register},
    {{24}, rtslib_pfeinfo_async_register},
    {{27}, rtslib_ifvcm_async_register},
    {{28}, rtslib_rtclass_async_register},
    {{31, 32, 34, 38, 39, 35, 36, 37, 55, 71}, rtslib_cos_async_register},
    {{40}, rtslib_sample_async_register},
    {{41}, rtslib_sadbm_async_register},
    {{43}, rtslib_monitor_async_register},
    {{44}, rtslib_monitor_state_async_register},
    {{45}, rtslib_pkcs_reply_async_register},
    {{46}, rtslib_ifvpm_async_register},
    {{47}, rtslib_ifsm_async_register},
    {{53}, rtslib_asp_cfg_async_register},
    {{54}, rtslib_asp_ipsec_async_register},
    {{57}, rtslib_l2tp_async_register},
    {{58, 60, 61, 59}, rtslib_cp_config_async_register},
    {{62, 63, 64, 66, 67, 65}, rtslib_cp_pic_async_register},
    {{68}, rtslib_picm_async_register},
    {{69}, rtslib_ksyncm_async_register},
    {{72}, rtslib_gencfg_async_register},
    {{73, 74, 75, 76, 77}, rtslib_aggr_config_async_register},
    {{79}, [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
         return rtslib_async_opaque_register(h, a, f, nullptr);
     }},
    {{80}, [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
         return rtslib_qsv_async_register(h, a, f, 0);
     }},
    {{81}, rtslib_pfe_dwn_map_async_register},
    {{82}, rtslib_stp_async_register},
    {{83}, rtslib_nh_comp_async_register},
    {{84}, rtslib_vlan_async_register},
    {{85}, rtslib_ifsclim_async_register},
    {{87}, rtslib_mesh_group_async_register},
    {{88}, rtslib_analyzer_async_register},
    {{89}, rtslib_bd_async_register},
    {{90}, rtslib_ifbd_async_register},
    {{91}, rtslib_ksdb_async_register},
    {{94}, rtslib_fc_fabric_async_register},
    {{97}, rtslib_ddos_async_register},
    {{98}, rtslib_notify_async_register},
    {{99}, [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
         return rtslib_kuack_async_register(h, 0, a, f);
     }},
    {{101}, [](rtslib_cookie *h, void *a, rtslib_async_handler_fn f) {
         return rtslib_sysstatsm_async_register(h, 4, a, f);
     }},
};

// "pfe-info" and "pfe_info" name "pfe info".
bool name_matches(const std::string &given, const char *name)
{
    std::string g = given;
    std::replace(g.begin(), g.end(), '-', ' ');
    std::replace(g.begin(), g.end(), '_', ' ');
    return given == name || g == name;
}

// The registration that brings a type of that name, or nullptr.
const Registration *find_registration(const std::string &given)
{
    for (const Registration &r : kRegistrations)
        for (int t : r.types)
            if (name_matches(given, rtm_types[t])) return &r;
    return nullptr;
}

struct WatchState {
    MessagePrinter *printer;
    uint64_t limit;
    uint64_t seen = 0;
};

int on_message(rtslib_cookie *h, void *arg, void *msg, void *)
{
    auto &st = *static_cast<WatchState *>(arg);
    // Messages read in the same pass after the last one counted are
    // dropped unseen.
    if (st.limit == 0 || st.seen < st.limit) {
        st.printer->print(msg, has_record(msg));
        st.seen++;
    }
    if (has_record(msg)) rtslib_msg_idl_release(h, msg);
    else rtslib_msg_free(h, msg);
    return 0;
}

// Signals arrive on a descriptor, so the poll below sees them.
int signal_descriptor()
{
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    if (sigprocmask(SIG_BLOCK, &mask, nullptr) != 0) return -1;
    return signalfd(-1, &mask, SFD_CLOEXEC);
}

// The names watch accepts, in the order they are registered.
std::vector<std::string> watch_type_names()
{
    std::vector<std::string> names;
    for (const Registration &r : kRegistrations)
        for (int t : r.types) names.emplace_back(rtm_types[t]);
    return names;
}

enum class LoopEnd { kStopped, kKernelGone, kFailed };

// Shows messages until a signal, the count or the timeout ends the watch.
LoopEnd poll_loop(rtslib_cookie *h, int fd, int sfd, const Options &opts, WatchState &st)
{
    using Clock = std::chrono::steady_clock;
    const auto deadline =
        Clock::now() + std::chrono::microseconds(static_cast<int64_t>(opts.timeout * 1e6));
    for (;;) {
        int wait_ms = -1;
        if (opts.timeout > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - Clock::now());
            if (left.count() <= 0) return LoopEnd::kStopped;
            wait_ms = static_cast<int>(std::min<int64_t>(left.count() + 1, INT32_MAX));
        }
        pollfd fds[2] = {{fd, POLLIN, 0}, {sfd, POLLIN, 0}};
        const int n = poll(fds, 2, wait_ms);
        if (n < 0 && errno != EINTR) return LoopEnd::kFailed;
        if (n <= 0) continue;
        if (fds[1].revents != 0) return LoopEnd::kStopped;
        if (fds[0].revents & POLLIN) {
            // Until nothing more waits; a malformed or unexpected message
            // is reported by the library and dropped.
            while (rtslib_async_event_process(h) == 0) {
                if (st.limit != 0 && st.seen >= st.limit) return LoopEnd::kStopped;
            }
            if (st.limit != 0 && st.seen >= st.limit) return LoopEnd::kStopped;
        }
        // What the kernel sent before hanging up has been shown above.
        if (fds[0].revents & (POLLHUP | POLLERR)) return LoopEnd::kKernelGone;
    }
}

}  // namespace

int run_watch(const Options &opts)
{
    std::vector<const Registration *> chosen;
    for (size_t i = 1; i < opts.args.size(); i++) {
        const Registration *r = find_registration(opts.args[i]);
        if (r == nullptr) {
            std::string valid;
            for (const std::string &n : watch_type_names()) valid += "\n  " + n;
            return usage_error("unknown message type \"" + opts.args[i] +
                               "\"; watch knows:" + valid);
        }
        if (std::find(chosen.begin(), chosen.end(), r) == chosen.end()) chosen.push_back(r);
    }
    if (chosen.empty())
        for (const Registration &r : kRegistrations) chosen.push_back(&r);

    Session session;
    if (!open_session(session)) return kExitFailure;
    MessagePrinter printer(session, opts.form, stdout);
    WatchState st{&printer, opts.count};
    int status = kExitFailure;
    const int sfd = signal_descriptor();
    int fd = -1;
    int rc = sfd < 0 ? errno : rtslib_set_async_info_nocontext(session.handle, &fd);
#ifdef TARN_MONITOR_HAVE_COMPRESS
    rtslib_init_blob_compression(session.handle, tarn_zlib_compress, tarn_zlib_decompress);
#endif
    std::string watched;
    for (const Registration *r : chosen) {
        if (rc != 0) break;
        rc = r->call(session.handle, &st, on_message);
        for (int t : r->types) watched += std::string(watched.empty() ? "" : ", ") + rtm_types[t];
    }
    if (rc != 0) {
        std::fprintf(stderr, "tarn-monitor: cannot register for notifications: %s\n",
                     std::strerror(rc > 0 ? rc : errno));
    } else {
        std::fprintf(stderr, "tarn-monitor: watching %s\n",
                     opts.args.size() > 1 ? watched.c_str() : "every notification class");
        switch (poll_loop(session.handle, fd, sfd, opts, st)) {
        case LoopEnd::kStopped: status = kExitOk; break;
        case LoopEnd::kKernelGone:
            std::fprintf(stderr, "tarn-monitor: the kernel closed the routing socket\n");
            break;
        case LoopEnd::kFailed:
            std::fprintf(stderr, "tarn-monitor: poll: %s\n", std::strerror(errno));
            break;
        }
    }
    if (sfd >= 0) close(sfd);
    close_session(session);
    return status;
}

}  // namespace tarn::monitor

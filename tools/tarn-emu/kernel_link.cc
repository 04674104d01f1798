#include "kernel_link.h"

#include <cerrno>
#include <cstring>

#include <tarn/idl.h>
#include <tarn/rtslib_msg.h>
#include <tarn/rtslib_route.h>

#include "wire.h"

namespace tarn::temu {
namespace {

uint8_t kernel_family(uint8_t code)
{
    return code == wire::kFamilyInet ? TARN_AF_INET : TARN_AF_INET6;
}

uint32_t prefix_bytes(uint8_t code)
{
    return code == wire::kFamilyInet ? 4 : 16;
}

// The kernel's route carries one next-hop index; the daemon's first next
// hop's interface stands for the set, the count goes with it.
constexpr uint8_t kRouteType = 1;

}  // namespace

KernelLink::~KernelLink()
{
    rtslib_close(handle_);
}

int KernelLink::report(rtslib_cookie *, void *arg, int, const char *text)
{
    static_cast<const KernelLink *>(arg)->log_.line("kernel: %s", text);
    return 0;
}

bool KernelLink::open()
{
    handle_ = rtslib_open_set_liberr(0, this, report);
    if (handle_ == nullptr) log_.line("no kernel: %s", std::strerror(errno));
    return handle_ != nullptr;
}

bool KernelLink::table_exists(uint32_t table, uint8_t family)
{
    if (handle_ == nullptr || table > 0xffff) return false;
    rtb_msg_t *rec = nullptr;
    const int rc = rtslib_rtbm_get_by_index(handle_, kernel_family(family),
                                            static_cast<uint16_t>(table), RTS_OP_GET, &rec, nullptr);
    const bool found = rc == 0 && rec != nullptr && rec->hdr.error == 0;
    if (rec != nullptr) rtslib_msg_idl_release(handle_, rec);
    return found;
}

bool KernelLink::table_by_name(const std::string &name, uint32_t &table)
{
    if (handle_ == nullptr) return false;
    for (uint8_t af : {uint8_t{TARN_AF_INET}, uint8_t{TARN_AF_INET6}}) {
        rtb_msg_t *rec = nullptr;
        const int rc = rtslib_rtbm_get_by_name(handle_, af, name.c_str(), &rec, nullptr);
        const bool found = rc == 0 && rec != nullptr && rec->hdr.error == 0;
        if (found) table = rec->tid;
        if (rec != nullptr) rtslib_msg_idl_release(handle_, rec);
        if (found) return true;
    }
    return false;
}

int KernelLink::add(const RouteKey &key, const Route &route)
{
    if (handle_ == nullptr) return ENOTCONN;
    uint32_t index = 0;
    return rtslib_rtm_add(handle_, static_cast<uint16_t>(key.table), kernel_family(key.family),
                          kRouteType, 0, static_cast<uint8_t>(route.hops.size()), 0, 0, 0,
                          route.gateway, route.hops.empty() ? 0 : route.hops[0].ifl, 0,
                          key.prefix.data(), key.plen, nullptr, &index);
}

int KernelLink::change(const RouteKey &key, const Route &route)
{
    if (handle_ == nullptr) return ENOTCONN;
    Address prefix = key.prefix;
    rt_msg_t rec{};
    rec.hdr.version = RTS_ROUTE_VERSION;
    rec.hdr.type = RTS_MSG_ROUTE;
    rec.hdr.hdrlen = RTS_ROUTE_FIXED_LEN;
    rec.tid = static_cast<uint16_t>(key.table);
    rec.af = kernel_family(key.family);
    rec.type = kRouteType;
    rec.nh = static_cast<uint8_t>(route.hops.size());
    rec.nhidx = route.hops.empty() ? 0 : route.hops[0].ifl;
    rec.owner_id = route.gateway;
    rec.plen = key.plen;
    rec.prefix = prefix.data();
    rec.prefix_len = prefix_bytes(key.family);
    return rtslib_rtm_get_with_msg(handle_, &rec, RTS_OP_CHANGE, nullptr, nullptr);
}

int KernelLink::remove(const RouteKey &key)
{
    if (handle_ == nullptr) return ENOTCONN;
    return rtslib_rtm_delete_prefix(handle_, static_cast<uint16_t>(key.table),
                                    kernel_family(key.family), kRouteType, 0, key.prefix.data(),
                                    key.plen, 0);
}

}  // namespace tarn::temu

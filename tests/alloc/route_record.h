// A route record that takes several allocations to decode, and the check
// that a decoded one is what was sent.
#ifndef TARN_TESTS_ALLOC_ROUTE_RECORD_H
#define TARN_TESTS_ALLOC_ROUTE_RECORD_H

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "sweep.h"
#include <tarn/tarn.h>

namespace tarn::test::alloc {

// A route with a prefix and two source addresses: a byte string, an array
// and its elements each take an allocation when decoded.
struct Route {
    uint8_t prefix[4] = {10, 1, 2, 0};
    uint8_t addr[2][4] = {{192, 0, 2, 1}, {192, 0, 2, 2}};
    idl_sockaddr_gen_t src[2]{};
    idl_sockaddr_gen_t *srcs[2] = {&src[0], &src[1]};
    idl_sockaddr_gen_map_t src_maps[2]{};
    rt_msg_t rt{};
    rt_msg_map_t map{};

    explicit Route(uint32_t seq = 9)
    {
        rt.hdr.version = RTS_ROUTE_VERSION;
        rt.hdr.type = RTS_MSG_ROUTE;
        rt.hdr.op = RTS_OP_ADD;
        rt.hdr.seq = seq;
        rt.tid = 3;
        rt.af = TARN_AF_INET;
        rt.plen = 24;
        rt.prefix = prefix;
        rt.prefix_len = sizeof prefix;
        for (int i = 0; i < 2; ++i) {
            src[i].sa_family = TARN_AF_INET;
            src[i].sa_addr = addr[i];
            src[i].sa_addr_len = 4;
            src_maps[i].bits = (1u << IDL_SOCKADDR_GEN_BIT_SA_FAMILY) |
                               (1u << IDL_SOCKADDR_GEN_BIT_SA_ADDR);
        }
        rt.source = srcs;
        rt.source_count = 2;
        map.bits = (1u << RT_MSG_BIT_HDR) | (1u << RT_MSG_BIT_TID) | (1u << RT_MSG_BIT_PLEN) |
                   (1u << RT_MSG_BIT_PREFIX) | (1u << RT_MSG_BIT_SOURCE);
        map.hdr.bits = (1u << RTS_HDR_BIT_SEQ) | (1u << RTS_HDR_BIT_TYPE);
        map.source = src_maps;
    }

    // The envelope's bytes, TLV with the map or IDR without.
    std::vector<uint8_t> encoded(rtslib_cookie *h, bool tlv)
    {
        void *buf = nullptr;
        uint32_t len = 0;
        EXPECT_EQ(rtslib_msg_idl_encode(h, &rt, tlv ? &map : nullptr, &buf, &len), 0);
        auto *p = static_cast<uint8_t *>(buf);
        std::vector<uint8_t> out(p, p + len);
        rtslib_msg_free(h, buf);
        return out;
    }

    // 0 when `got` is this route as sent.
    static int compare(const rt_msg_t *got)
    {
        Route want;
        if (got == nullptr || got->tid != 3 || got->plen != 24 || got->prefix_len != 4 ||
            std::memcmp(got->prefix, want.prefix, 4) != 0 || got->source_count != 2)
            return kWrong;
        for (int i = 0; i < 2; ++i)
            if (got->source[i]->sa_addr_len != 4 ||
                std::memcmp(got->source[i]->sa_addr, want.addr[i], 4) != 0)
                return kWrong;
        return 0;
    }
};

}  // namespace tarn::test::alloc

#endif  // TARN_TESTS_ALLOC_ROUTE_RECORD_H

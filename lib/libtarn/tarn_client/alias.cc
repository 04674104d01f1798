// Interface-alias operations, serialised per 16-bit alias key: each key has
// a FIFO of operations in the session's tree, and only the head of a FIFO has
// a request out with the routing daemon. Its flagged reply decides the head's
// fate; the next operation's request goes out once the head is gone.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <tarn/idl.h>
#include <tarn/rtslib_if.h>
#include <tarn/rtslib_route.h>

#include "libtarn/tarn_client/tarn_client_internal.h"

using namespace tarn::client;

namespace {

struct AliasOp {
    AliasOp *next;
    uint32_t id;
    int kind;
    bool done;
    AliasRequest req;
};

// A tree node per key; the 2-byte key (network order, so keys sort by value)
// sits in the node's key area.
struct AliasKey {
    patricia_node node;
    AliasOp *head;
    AliasOp **tail;
};

AliasKey *as_key(patricia_node *n)
{
    return reinterpret_cast<AliasKey *>(n);
}

AliasKey *find(tarn_session_handle *s, uint16_t key)
{
    unsigned char k[2];
    store16(k, key);
    patricia_node *n = s->alias_tree == nullptr ? nullptr : patricia_get(s->alias_tree, 2, k);
    return n == nullptr ? nullptr : as_key(n);
}

int send_request(tarn_session_handle *s, const AliasOp *op)
{
    tarn_rt_request rq = op->req.route;
    rq.rt_cookie = op->id;
    const uint16_t type = op->kind == TARN_RA_KIND_ADD ? TARN_MSG_RT_ADD : TARN_MSG_RT_DELETE;
    return send_route_request(s, type, &rq, op->kind == TARN_RA_KIND_ADD, op->req.key, 1);
}

void remove_head(tarn_session_handle *s, AliasKey *k)
{
    AliasOp *op = k->head;
    k->head = op->next;
    std::free(op);
    if (k->head == nullptr) {
        patricia_delete(s->alias_tree, &k->node);
        std::free(k);
        return;
    }
    // The next operation of the key now has its turn; one whose request
    // cannot go out is reported as failed.
    while (k->head != nullptr && send_request(s, k->head) != 0) {
        AliasOp *failed = k->head;
        const uint32_t code = failed->kind == TARN_RA_KIND_ADD ? 33 : 39;
        if (s->funs->tsf_alias_result != nullptr)
            s->funs->tsf_alias_result(s, failed->id, failed->kind, code);
        k->head = failed->next;
        std::free(failed);
    }
    if (k->head == nullptr) {
        patricia_delete(s->alias_tree, &k->node);
        std::free(k);
    }
}

bool not_found(int rc)
{
    return rc == ENOENT || rc == ESRCH;
}

// The lookups after a successful reply: 0 when they succeeded or found
// nothing, else the failing lookup's error.
int lookup(tarn_session_handle *s, const AliasOp *op)
{
    const AliasRequest &r = op->req;
    const uint8_t af = alias_rts_family(r.family);
    int rc;
    if (op->kind == TARN_RA_KIND_ADD) {
        ifl_msg_t *ifl = nullptr;
        uint32_t ifl_len = 0;
        rc = rtslib_iflm_get_by_name(s->rts, r.ifname, r.unit, RTS_OP_GET, &ifl, &ifl_len);
        if (ifl != nullptr) rtslib_msg_idl_release(s->rts, ifl);
        if (rc == 0 || not_found(rc)) {
            rt_msg_t *rt = nullptr;
            void *map = nullptr;
            rc = rtslib_rtm_get(s->rts, static_cast<uint16_t>(r.route.rt_table_id), af,
                                r.route.rt_prefix, r.route.rt_prefix_len, 0, 0, 0, 0, RTS_OP_GET,
                                &rt, &map);
            if (rt != nullptr) rtslib_msg_idl_release(s->rts, rt);
        }
    } else {
        const uint32_t index = r.route.rt_nh_count > 0 ? r.route.rt_nexthops[0].nh_ifl_index : 0;
        iff_msg_t *iff = nullptr;
        uint32_t len = 0;
        rc = rtslib_iffm_get_by_index(s->rts, index, af, RTS_OP_GET, &iff, &len);
        if (iff != nullptr) rtslib_msg_idl_release(s->rts, iff);
        if (rc == 0 || not_found(rc)) {
            ifa_msg_t *ifa = nullptr;
            rc = rtslib_ifam_get_by_index(s->rts, index, af, RTS_OP_GET, &ifa, &len);
            if (ifa != nullptr) rtslib_msg_idl_release(s->rts, ifa);
        }
    }
    return not_found(rc) ? 0 : rc;
}

}  // namespace

namespace tarn::client {

uint8_t alias_rts_family(uint8_t family)
{
    switch (family) {
    case TARN_FAMILY_INET: return 2;
    case TARN_FAMILY_INET6: return 28;
    default: return 0;
    }
}

int alias_enqueue(tarn_session_handle *s, const AliasRequest *req, uint32_t id, int kind)
{
    if (check_session(s) != 0) return -1;
    if (req == nullptr || (kind != TARN_RA_KIND_ADD && kind != TARN_RA_KIND_DELETE)) {
        errno = EINVAL;
        return -1;
    }
    auto *op = static_cast<AliasOp *>(std::calloc(1, sizeof(AliasOp)));
    if (op == nullptr) {
        errno = ENOMEM;
        return -1;
    }
    op->id = id;
    op->kind = kind;
    op->req = *req;
    AliasKey *k = find(s, req->key);
    if (k != nullptr) {
        // Waits for the operations ahead of it.
        *k->tail = op;
        k->tail = &op->next;
        return 0;
    }
    k = static_cast<AliasKey *>(std::calloc(1, sizeof(AliasKey) + 2));
    if (k == nullptr) {
        std::free(op);
        errno = ENOMEM;
        return -1;
    }
    patricia_node_init_length(&k->node, 2);
    store16(k->node.key, req->key);
    k->head = op;
    k->tail = &op->next;
    if (send_request(s, op) != 0) {
        const int err = errno;
        std::free(op);
        std::free(k);
        errno = err;
        return -1;
    }
    patricia_add(s->alias_tree, &k->node);
    return 0;
}

void alias_reply(tarn_session_handle *s, int kind, uint32_t result, uint32_t id, uint16_t key)
{
    AliasKey *k = find(s, key);
    if (k == nullptr || k->head == nullptr) return;
    AliasOp *op = k->head;
    op->done = true;
    if (op->id != id || op->kind != kind) return;
    auto report = [&](uint32_t code) {
        if (s->funs->tsf_alias_result != nullptr) s->funs->tsf_alias_result(s, id, kind, code);
    };
    if (result != 0) {
        report(kind == TARN_RA_KIND_ADD ? TARN_RC_ALIAS_ADD_REPLY_FAILED
                                        : TARN_RC_ALIAS_DELETE_REPLY_FAILED);
    } else if (lookup(s, op) != 0) {
        report(kind == TARN_RA_KIND_ADD ? TARN_RC_ALIAS_ADD_IFL_LOOKUP
                                        : TARN_RC_ALIAS_DELETE_IFF_NOT_FOUND);
    }
    // The callback may have closed the session, which empties the tree.
    k = find(s, key);
    if (k != nullptr && k->head == op) remove_head(s, k);
}

size_t alias_pending(tarn_session_handle *s, uint16_t key)
{
    size_t n = 0;
    AliasKey *k = find(s, key);
    for (AliasOp *op = k == nullptr ? nullptr : k->head; op != nullptr; op = op->next) ++n;
    return n;
}

void alias_free_all(tarn_session_handle *s)
{
    if (s->alias_tree == nullptr) return;
    while (s->alias_tree->root != nullptr) {
        AliasKey *k = as_key(patricia_find_next(s->alias_tree, nullptr));
        patricia_delete(s->alias_tree, &k->node);
        while (k->head != nullptr) {
            AliasOp *next = k->head->next;
            std::free(k->head);
            k->head = next;
        }
        std::free(k);
    }
}

}  // namespace tarn::client

namespace {

static_assert(sizeof(tarn_alias_request) == TARN_ALIAS_REQUEST_LEN);

int alias_public(tarn_session_handle *s, const tarn_alias_request *r, uint32_t id, int kind)
{
    if (check_session(s) != 0) return -1;
    if (r == nullptr || std::memchr(r->al_ifname, '\0', sizeof r->al_ifname) == nullptr ||
        (r->al_family != TARN_FAMILY_INET && r->al_family != TARN_FAMILY_INET6) ||
        r->al_route.rt_nh_count > TARN_RT_MAX_NEXTHOPS) {
        errno = EINVAL;
        return -1;
    }
    AliasRequest req{};
    req.key = r->al_key;
    req.family = r->al_family;
    std::memcpy(req.ifname, r->al_ifname, sizeof req.ifname);
    req.unit = r->al_unit;
    req.route = r->al_route;
    return alias_enqueue(s, &req, id, kind);
}

}  // namespace

extern "C" {

int tarn_alias_add(tarn_session_handle *session, const tarn_alias_request *request, uint32_t id)
{
    return alias_public(session, request, id, TARN_RA_KIND_ADD);
}

int tarn_alias_delete(tarn_session_handle *session, const tarn_alias_request *request,
                      uint32_t id)
{
    return alias_public(session, request, id, TARN_RA_KIND_DELETE);
}

}  // extern "C"

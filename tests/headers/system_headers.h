/* The public headers beside the system headers a daemon includes, in either
 * order, as C11 and as C++: a field or definition of ours that one of their
 * macros rewrites, or a clash of declarations, fails the build. Included by
 * the translation units of this check with TARN_HEADERS_ORDER (1: ours
 * first, 2: ours last) and TARN_HEADERS_FN set. */
#if TARN_HEADERS_ORDER == 1
#include <tarn/tarn.h>
#include <qpipe/ipc_pipe.h>
#endif
#include <sys/socket.h>
#include <netinet/in.h>
#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>
#include <ifaddrs.h>
#include <netdb.h>
#if TARN_HEADERS_ORDER == 2
#include <tarn/tarn.h>
#include <qpipe/ipc_pipe.h>
#endif

#ifdef __cplusplus
extern "C" {
#endif
unsigned TARN_HEADERS_FN(const in6_addr_idl_t *ours, const struct in6_addr *system);
#ifdef __cplusplus
}
#endif

/* Our field and the system's macro of a near name, side by side. */
unsigned TARN_HEADERS_FN(const in6_addr_idl_t *ours, const struct in6_addr *system)
{
    return ours->octets_len + system->s6_addr[0];
}

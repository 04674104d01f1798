/* Built against the C library alone: its if_nametoindex reference carries
 * the C library's symbol version. */
#include <net/if.h>

unsigned int probe_if_nametoindex(const char *name);

unsigned int probe_if_nametoindex(const char *name)
{
    return if_nametoindex(name);
}

/* A daemon-shaped consumer of the installed library: the umbrella header
 * compiles as C11 and the library links and runs without a kernel. */
#include <stdio.h>
#include <tarn/tarn.h>

int main(void)
{
    rtslib_cookie *h = rtslib_open_nc();
    uint32_t seq = 0;
    if (h == NULL || rtslib_seq_get_next(h, &seq) != 0 || seq != 2) return 1;
    rtslib_close(h);
    printf("%s\n", rtm_types[RTS_MSG_ROUTE]);
    return 0;
}

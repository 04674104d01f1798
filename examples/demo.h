/* What the parts of the demo daemon share. */
#ifndef TARN_EXAMPLES_DEMO_H
#define TARN_EXAMPLES_DEMO_H

#include <tarn/tarn.h>

struct report_log {
    int count;
    int mismatches;
};

/* The demo's error sink (arg: a struct report_log) and result text. */
int demo_sink(rtslib_cookie *handle, void *arg, int level, const char *text);
const char *ok_or(int rc);

/* Each part of the conversation. */
void demo_routing_daemon(struct report_log *log);

#endif

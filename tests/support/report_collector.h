// An error sink that records every report, for exact-text assertions.
#ifndef TARN_TESTS_REPORT_COLLECTOR_H
#define TARN_TESTS_REPORT_COLLECTOR_H

#include <ostream>
#include <string>
#include <vector>

#include <tarn/rtslib.h>

namespace tarn::test {

struct Report {
    int level;
    std::string text;
    bool operator==(const Report &) const = default;
};

std::ostream &operator<<(std::ostream &os, const Report &r);

struct ReportCollector {
    std::vector<Report> reports;
    std::vector<rtslib_cookie *> handles;  // the handle each report came with

    // Pass as (arg = &collector, fn = ReportCollector::sink).
    static int sink(rtslib_cookie *handle, void *arg, int level, const char *text);
};

}  // namespace tarn::test

#endif  // TARN_TESTS_REPORT_COLLECTOR_H

#include "report_collector.h"

#include <cerrno>

namespace tarn::test {

std::ostream &operator<<(std::ostream &os, const Report &r)
{
    return os << "{level " << r.level << ", \"" << r.text << "\"}";
}

int ReportCollector::sink(rtslib_cookie *handle, void *arg, int level, const char *text)
{
    auto *self = static_cast<ReportCollector *>(arg);
    self->reports.push_back({level, text});
    self->handles.push_back(handle);
    // A sink may clobber errno; the library must restore it.
    errno = EDOM;
    return 0;
}

}  // namespace tarn::test

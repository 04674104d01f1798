// Drives one public call with its 1st, 2nd, ... allocation failing in turn
// until it runs without meeting the failure; after every run the caller's
// documented cleanup must leave no block behind.
#ifndef TARN_TESTS_ALLOC_SWEEP_H
#define TARN_TESTS_ALLOC_SWEEP_H

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

namespace tarn::test::alloc {

// A call's outcome as the sweep sees it: 0 for success, otherwise the code
// the call gave (an errno value, a codec code, or errno after -1/NULL).
// kWrong marks a success whose result is not what was asked for.
inline constexpr int kWrong = -10000;

struct Row {
    std::string name;
    std::function<void()> setup = [] {};  // unarmed, before every run
    std::function<int()> call;            // armed: the library call and nothing else
    std::function<int()> check = [] { return 0; };  // unarmed, after a success
    std::vector<int> failure;             // acceptable codes when an allocation failed
    std::function<void()> cleanup = [] {};  // the caller's release, after every run
    size_t kept = 0;  // blocks the call is documented to leave behind, at most
};

// A call's result as a code: NULL or -1 become errno.
inline int code_of(const void *p) { return p != nullptr ? 0 : errno; }
inline int code_of(int rc) { return rc == 0 ? 0 : errno; }
// Calls that return an errno value, or -1 with errno set.
inline int errno_of(int rc) { return rc == -1 ? errno : rc; }
// A check's verdict on what a successful call gave.
inline int wrong_unless(bool right) { return right ? 0 : kWrong; }

// Sweeps every row (GoogleTest assertions on any fault) and adds them to the
// totals that the program prints when it ends.
void sweep(const std::vector<Row> &rows);

}  // namespace tarn::test::alloc

#endif  // TARN_TESTS_ALLOC_SWEEP_H

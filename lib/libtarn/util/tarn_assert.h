// Programming errors in the containers and the routing-daemon client end the
// process through one helper, in the form of the platform's __assert: the
// function, the source it names, the line and the expression text.
#ifndef LIBTARN_UTIL_TARN_ASSERT_H
#define LIBTARN_UTIL_TARN_ASSERT_H

extern "C" [[noreturn]] void tarn_assert_fail(const char *func, const char *source, int line,
                                              const char *expr);

// Checks `expr` and names `source` (a subsystem name such as "patricia")
// rather than the compiler's file path, so reports do not depend on where the
// tree was built.
#define TARN_ASSERT_IN(source, expr) \
    ((expr) ? static_cast<void>(0) : tarn_assert_fail(__func__, (source), __LINE__, #expr))

// As TARN_ASSERT_IN, with the expression text given explicitly, for checks
// whose reported text is part of the interface and differs from the C++
// expression that implements it.
#define TARN_ASSERT_TEXT(source, cond, text) \
    ((cond) ? static_cast<void>(0) : tarn_assert_fail(__func__, (source), __LINE__, (text)))

#endif  // LIBTARN_UTIL_TARN_ASSERT_H

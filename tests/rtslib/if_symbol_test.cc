// libtarn's if_nametoindex reaches code linked against libtarn only; a
// library in the same process linked against the C library alone keeps the
// C library's.
#include <dlfcn.h>
#include <net/if.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

extern "C" unsigned int probe_if_nametoindex(const char *name);

namespace {

TEST(IfSymbolVersions, EachCallerGetsItsOwnLibrary)
{
#if defined(__SANITIZE_ADDRESS__)
    // The sanitizer runtime defines if_nametoindex itself and comes first in
    // lookup order, so both callers reach its interceptor.
    GTEST_SKIP() << "if_nametoindex is intercepted in sanitizer builds";
#endif
    // No kernel: libtarn's answer is "unknown", the C library's is the host's.
    ::setenv("TARN_KERNEL_SOCKET", "/nonexistent/tarn-kernel.sock", 1);
    const unsigned system_lo = probe_if_nametoindex("lo");
    EXPECT_GT(system_lo, 0u);
    errno = 0;
    EXPECT_EQ(if_nametoindex("lo"), 0u);
    EXPECT_EQ(errno, ENXIO);

    Dl_info info{};
    ASSERT_NE(dladdr(reinterpret_cast<void *>(&if_nametoindex), &info), 0);
    EXPECT_NE(std::strstr(info.dli_fname, "libtarn"), nullptr) << info.dli_fname;
    ::unsetenv("TARN_KERNEL_SOCKET");
}

}  // namespace

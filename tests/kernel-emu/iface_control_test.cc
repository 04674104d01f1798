// The interface sysctls through a real emulator's control path: the client
// side's requests reach the kernel's tables and values.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "emu_client.h"
#include "kernel_emulator.h"
#include "libtarn/os/emu_protocol.h"
#include <tarn/tarn.h>

namespace {

namespace emu = tarn::emu;

// The table of `kind`, or an empty one with errno set.
std::vector<uint8_t> iflist(int32_t kind, int *err)
{
    std::vector<uint8_t> buf(64 * 1024);
    const int32_t mib[] = {0, 0, 3, kind};
    std::memcpy(buf.data(), mib, sizeof mib);
    uint32_t len = sizeof mib;
    *err = emu::control_call(emu::CtlOp::kRouteSysctl, "", 0, 0, 0, buf.data(), &len,
                             static_cast<uint32_t>(buf.size())) == 0 ? 0 : errno;
    buf.resize(*err == 0 ? len : 0);
    return buf;
}

// Device names in a kind-1 table.
std::vector<std::string> device_names(const std::vector<uint8_t> &table)
{
    std::vector<std::string> names;
    rtslib_cookie *codec = rtslib_open_nc();
    std::vector<uint8_t> arena(16 * 1024);
    for (uint32_t off = 0, len = 0; off < table.size(); off += len) {
        void *rec = nullptr;
        const auto left = static_cast<uint32_t>(table.size() - off);
        if (rtslib_idl_peek_length(&len, table.data() + off, left) == nullptr || len == 0 ||
            len > left ||
            rtslib_msg_idl_decode_pa(codec, table.data() + off, len, &rec, nullptr, arena.data(),
                                     static_cast<uint32_t>(arena.size())) != 0) {
            ADD_FAILURE() << "bad message at " << off;
            break;
        }
        const auto *d = static_cast<const ifdev_msg_t *>(rec);
        names.emplace_back(reinterpret_cast<const char *>(d->name));
    }
    rtslib_close(codec);
    return names;
}

TEST(EmuInterfaceSysctls, ServedFromTheConfiguredSet)
{
    const std::string path = testing::TempDir() + "iface_control_test.txt";
    FILE *f = std::fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("device fxp0\nlogical fxp0.0\naddress fxp0.0 10.0.0.1/8\n", f);
    std::fclose(f);
    tarn::test::KernelEmulator kemu({"--interfaces", path, "--ifs-max-clients", "5"});
    ASSERT_TRUE(kemu.running());

    uint32_t value = 0, len = 0;
    const char name[] = "hw.product.ifs_max_clients";
    ASSERT_EQ(emu::control_call(emu::CtlOp::kSysctlGet, name, sizeof name - 1, 0, 0, &value, &len,
                                sizeof value), 0);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(value, 5u);
    len = 0;
    EXPECT_EQ(emu::control_call(emu::CtlOp::kSysctlGet, "hw.nothing", 10, 0, 0, &value, &len,
                                sizeof value), -1);
    EXPECT_EQ(errno, ENOENT);

    int err = 0;
    EXPECT_EQ(device_names(iflist(1, &err)), std::vector<std::string>{"fxp0"});
    EXPECT_EQ(err, 0);
    EXPECT_EQ(tarn::test::command(-1, "device-add em3", &err), "");
    EXPECT_EQ(err, 0);
    EXPECT_EQ(device_names(iflist(1, &err)), (std::vector<std::string>{"fxp0", "em3"}));
    iflist(7, &err);
    EXPECT_EQ(err, EINVAL);
    std::remove(path.c_str());
}

}  // namespace

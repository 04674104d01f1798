// The daemon's routes installed in the kernel (emulator) through libtarn's
// routing-socket calls, so the kernel's listeners see every change.
#ifndef TARN_TARN_EMU_KERNEL_LINK_H
#define TARN_TARN_EMU_KERNEL_LINK_H

#include <string>

#include <tarn/rtslib.h>

#include "daemon.h"
#include "emu_log.h"

namespace tarn::temu {

class KernelLink : public KernelPort {
public:
    explicit KernelLink(const EmuLog &log) : log_(log) {}
    ~KernelLink() override;
    KernelLink(const KernelLink &) = delete;
    KernelLink &operator=(const KernelLink &) = delete;

    // Opens a routing socket to the kernel at TARN_KERNEL_SOCKET. False when
    // there is none (the reason is logged).
    bool open();

    bool table_exists(uint32_t table, uint8_t family) override;
    bool table_by_name(const std::string &name, uint32_t &table) override;
    int add(const RouteKey &key, const Route &route) override;
    int change(const RouteKey &key, const Route &route) override;
    int remove(const RouteKey &key) override;

private:
    static int report(rtslib_cookie *, void *arg, int level, const char *text);

    const EmuLog &log_;
    rtslib_cookie *handle_ = nullptr;
};

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_KERNEL_LINK_H

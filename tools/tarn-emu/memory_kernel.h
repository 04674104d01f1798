// A kernel kept in memory, for driving the daemon model without a kernel
// emulator: a set of tables, the routes installed, and every call recorded.
#ifndef TARN_TARN_EMU_MEMORY_KERNEL_H
#define TARN_TARN_EMU_MEMORY_KERNEL_H

#include <cerrno>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "daemon.h"

namespace tarn::temu {

class MemoryKernel : public KernelPort {
public:
    std::map<std::string, uint32_t> tables{{"inet.0", 0}};  // by name
    std::map<RouteKey, Route> routes;
    std::vector<std::string> calls;  // "add", "change", "remove", in order
    int fail_next = 0;               // an errno value the next route call returns

    bool table_exists(uint32_t table, uint8_t) override
    {
        for (const auto &[name, id] : tables)
            if (id == table) return true;
        return false;
    }
    bool table_by_name(const std::string &name, uint32_t &table) override
    {
        auto it = tables.find(name);
        if (it == tables.end()) return false;
        table = it->second;
        return true;
    }
    int add(const RouteKey &key, const Route &route) override
    {
        return apply("add", [&] { return routes.emplace(key, route).second; });
    }
    int change(const RouteKey &key, const Route &route) override
    {
        return apply("change", [&] {
            auto it = routes.find(key);
            if (it == routes.end()) return false;
            it->second = route;
            return true;
        });
    }
    int remove(const RouteKey &key) override
    {
        return apply("remove", [&] { return routes.erase(key) != 0; });
    }

private:
    template <typename Op>
    int apply(const char *what, Op op)
    {
        calls.emplace_back(what);
        if (int err = std::exchange(fail_next, 0)) return err;
        return op() ? 0 : ENOENT;
    }
};

}  // namespace tarn::temu

#endif  // TARN_TARN_EMU_MEMORY_KERNEL_H

// Configuration objects the kernel relays between daemons: opaque blobs
// filed by major type, minor type and key, with the peer and dependency
// lists that travel with them. The kernel never looks inside a blob, so a
// compressed one is kept and sent on exactly as it arrived.
#ifndef TARN_KERNEL_EMU_GENCFG_H
#define TARN_KERNEL_EMU_GENCFG_H

#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include <tarn/idl.h>

#include "emission.h"

namespace tarn::kemu {

inline constexpr uint8_t kGencfgVersion = 105;        // 'i'
inline constexpr uint8_t kGencfgOpChangeGet = 9;      // change, answered with the object
inline constexpr uint32_t kGencfgFlagExtra = 0x1;     // extra_value is meaningful
inline constexpr uint32_t kGencfgFlagKey = 0x2;
inline constexpr uint32_t kGencfgFlagDeps = 0x4;
inline constexpr uint32_t kGencfgFlagCompressed = 0x20000;
// The largest blob the kernel takes, exclusive.
inline constexpr uint32_t kGencfgMaxBlob = 512000;

struct GencfgKey {
    uint16_t major = 0, minor = 0;
    std::vector<uint8_t> key;
    // Major, minor, then the key's bytes (a shorter key first on a tie).
    bool operator<(const GencfgKey &o) const
    {
        if (major != o.major) return major < o.major;
        if (minor != o.minor) return minor < o.minor;
        const size_t n = key.size() < o.key.size() ? key.size() : o.key.size();
        for (size_t i = 0; i < n; ++i)
            if (key[i] != o.key[i]) return key[i] < o.key[i];
        return key.size() < o.key.size();
    }
};

struct GencfgDep {
    gencfg_depinfo_t fields{};  // data pointer unused: the bytes are in `data`
    std::vector<uint8_t> data;
};

struct GencfgObject {
    uint16_t value3 = 0, value4 = 0;
    uint32_t flags = 0, extra_value = 0, gen_id = 0;
    uint8_t peer_capacity = 0;
    std::vector<uint8_t> blob;
    std::vector<GencfgDep> deps;
    std::vector<gencfg_peerinfo_t> peers;
    std::vector<gencfg_type_ifd_t> ifd_info;
};

class Gencfg {
public:
    // Adds (1, 8), changes (2, 9), deletes (3) and gets (4 exact, 5 next in
    // key order within the major type). Only 4, 5, 8 and 9 are answered;
    // every stored change goes to listeners with op 1, 2 or 3.
    void request(const gencfg_msg_t &req, Emission &out);

    // One object a line: major, minor, key, flags, blob length and counts.
    std::string dump() const;
    // One object in full (blob bytes cut after `blob_bytes`); false if absent.
    bool show(const GencfgKey &key, size_t blob_bytes, std::string &out) const;
    size_t size() const { return objects_.size(); }
    const GencfgObject *find(const GencfgKey &key) const;

private:
    // The request's error number for the kernel's checks, 0 when it may go on.
    static uint32_t check(const gencfg_msg_t &req);
    void emit(const GencfgKey &key, const GencfgObject &obj, const rts_hdr_t &hdr,
              uint32_t error, Emission &out, bool notification);

    std::map<GencfgKey, GencfgObject> objects_;
};

}  // namespace tarn::kemu

#endif  // TARN_KERNEL_EMU_GENCFG_H

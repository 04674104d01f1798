#include "emu_client.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "libtarn/os/emu_protocol.h"
#include <tarn/rtsock_wire.h>

namespace tarn::test {

int inject(int fd, const std::vector<uint8_t> &bytes)
{
    emu::SocketName name;
    if (emu::socket_name(fd, name) != 0) return -1;
    std::vector<uint8_t> copy = bytes;
    uint32_t len = static_cast<uint32_t>(copy.size());
    return emu::control_call(emu::CtlOp::kInject, name.bytes, name.len, 0, 0, copy.data(), &len,
                             0);
}

std::string command(int fd, const std::string &text, int *err)
{
    emu::SocketName name{};
    name.len = 0;
    if (fd >= 0 && emu::socket_name(fd, name) != 0) {
        if (err != nullptr) *err = errno;
        return {};
    }
    constexpr uint32_t kCapacity = 1u << 20;
    std::vector<uint8_t> buf(std::max<size_t>(kCapacity, text.size()));
    std::memcpy(buf.data(), text.data(), text.size());
    uint32_t len = static_cast<uint32_t>(text.size());
    const int rc = emu::control_call(emu::CtlOp::kCommand, name.bytes, name.len, 0, 0, buf.data(),
                                     &len, kCapacity);
    if (err != nullptr) *err = rc == 0 ? 0 : errno;
    return rc == 0 ? std::string(buf.begin(), buf.begin() + len) : std::string();
}

std::string socket_state(int fd, const std::string &field)
{
    std::istringstream in(command(fd, "state"));
    for (std::string line; std::getline(in, line);)
        if (line.compare(0, field.size() + 1, field + " ") == 0) return line.substr(field.size() + 1);
    return {};
}

unsigned socket_file_mode(const std::string &path)
{
    struct stat st{};
    if (::stat(path.c_str(), &st) != 0 || !S_ISSOCK(st.st_mode)) return 07777;
    return st.st_mode & 0777;
}

std::string hex(const std::vector<uint8_t> &bytes)
{
    static const char kDigits[] = "0123456789abcdef";
    std::string s;
    for (uint8_t b : bytes) {
        s += kDigits[b >> 4];
        s += kDigits[b & 15];
    }
    return s.empty() ? "-" : s;
}

std::vector<uint8_t> raw_message(uint32_t total, uint32_t seq, uint8_t type, uint8_t op,
                                 int64_t claimed)
{
    std::vector<uint8_t> m(total, 0);
    const uint32_t len = claimed < 0 ? total : static_cast<uint32_t>(claimed);
    if (total >= 5) m[RTS_HDR_VERSION_OFF] = 'h';
    if (total > RTS_HDR_TYPE_OFF) m[RTS_HDR_TYPE_OFF] = type;
    if (total > RTS_HDR_OP_OFF) m[RTS_HDR_OP_OFF] = op;
    if (total >= RTS_HDR_LEN_OFF + 4) std::memcpy(&m[RTS_HDR_LEN_OFF], &len, 4);
    if (total >= RTS_HDR_SEQ_OFF + 4) std::memcpy(&m[RTS_HDR_SEQ_OFF], &seq, 4);
    for (uint32_t i = RTS_HDR_MIN_LEN; i < total; ++i) m[i] = static_cast<uint8_t>(i);
    return m;
}

std::vector<uint8_t> envelope(uint32_t magic, uint32_t body_len_field, uint32_t body)
{
    std::vector<uint8_t> m(RTS_IDL_ENVELOPE_HDR_LEN + body, 0);
    std::memcpy(&m[0], &magic, 4);
    std::memcpy(&m[4], &body_len_field, 4);
    return m;
}

}  // namespace tarn::test

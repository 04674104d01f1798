// Test-side scripting of a running kernel emulator.
#ifndef TARN_TESTS_EMU_CLIENT_H
#define TARN_TESTS_EMU_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// Has the emulator send `bytes` as one message on routing socket `fd`
// (TARN_KERNEL_SOCKET names the emulator). 0, or -1 with errno. When it
// returns 0 the message is already queued on the socket.
int inject(int fd, const std::vector<uint8_t> &bytes);

// Runs an emulator command ("dump", "drop-replies N", "mgroup-add ...") about
// routing socket `fd` (-1: none) and returns its output; `err` gets 0 or the
// errno of a refusal.
std::string command(int fd, const std::string &text, int *err = nullptr);

// A raw routing-socket message: `total` bytes with the header's length word
// set to `claimed` (default: total), sequence `seq`, type and operation.
std::vector<uint8_t> raw_message(uint32_t total, uint32_t seq, uint8_t type = 2, uint8_t op = 1,
                                 int64_t claimed = -1);

// An IDL envelope header with the given magic and body length, followed by
// `body` zero bytes.
std::vector<uint8_t> envelope(uint32_t magic, uint32_t body_len_field, uint32_t body);

}  // namespace tarn::test

#endif  // TARN_TESTS_EMU_CLIENT_H

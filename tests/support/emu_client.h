// Test-side scripting of a running kernel emulator.
//
// Commands (command(); "(socket)" ones need the routing socket's fd, the
// others take -1; tarn-kernel-emu's "help" command prints this list):
//   help, dump (routing state, interfaces, configuration objects), count, sockets
//   state (socket)            one "name value" a line: socket, name, sender-id,
//                             lr-id, listen-mask (0x + 16 hex digits, high word
//                             first), async-mode, slave-mode, master-mode,
//                             local-slave-mode, kernel-seq (the next
//                             notification's), queued, queue-bound, dropped,
//                             paused, subtypes (hex), filters (hex)
//   drop-replies N (socket)   drop the next N answers
//   queue-bound N (socket)    notifications beyond N waiting messages are dropped
//   pause / resume (socket)   stop / restart sending to the socket
//   inject HEX (socket)       one message on the socket, bytes as given
//   notify HEX                to every listener of the message's type; raw
//                             messages get each socket's sequence number
//   route-add TID AF HEX PLEN NH NHIDX, route-delete TID AF HEX PLEN,
//   mgroup-add TID AF HEX BITS IIF, mgroup-delete TID AF HEX BITS,
//   table-add TID AF NAME     changes that notify listeners (TLV); HEX "-" is
//                             an empty prefix
//   device-add NAME, device-delete NAME, logical-add NAME.UNIT,
//   logical-delete NAME.UNIT, address-add NAME.UNIT ADDR/PLEN,
//   address-delete NAME.UNIT ADDR/PLEN,
//   unnumbered-add NAME.UNIT DONOR.UNIT [inet|inet6], unnumbered-delete ...
//                             interface changes that notify listeners (TLV);
//                             EEXIST / ENOENT when refused, EINVAL (with the
//                             reason as output) for bad arguments
//   traffic NAME [inet|inet6] IN_PKTS OUT_PKTS IN_BYTES OUT_BYTES
//                             counts traffic that the statistics requests answer
//   ifs-max-clients N         the sysctl hw.product.ifs_max_clients
//   gencfg-list               configuration objects, one a line: "gencfg MAJOR
//                             MINOR KEYHEX flags 0xF blob LEN peers N deps N"
//   gencfg-show MAJOR MINOR KEYHEX
//                             one object, "name value" lines (key, major, minor,
//                             value3, value4, flags, extra-value, gen-id,
//                             peer-capacity, blob-len, blob: hex, cut after 256
//                             bytes with "..."), then "peer ..." and "dep ..."
//                             lines; ENOENT when absent
//   gencfg-add MAJOR MINOR KEYHEX BLOBHEX [FLAGS], gencfg-delete MAJOR MINOR KEYHEX
//                             changes that notify listeners (TLV); KEYHEX "-" is
//                             no key; FLAGS 0x20000 marks the blob compressed;
//                             EEXIST / ENOENT when refused
// A line over 4096 bytes is refused with E2BIG, one with a byte that is not
// printable or more words than its command takes with EINVAL; neither has
// any effect, and the emulator logs why.
#ifndef TARN_TESTS_EMU_CLIENT_H
#define TARN_TESTS_EMU_CLIENT_H

#include <cstdint>
#include <string>
#include <vector>

namespace tarn::test {

// Has the emulator send `bytes` as one message on routing socket `fd`
// (TARN_KERNEL_SOCKET names the emulator). 0, or -1 with errno. When it
// returns 0 the message is already queued on the socket, unless earlier
// messages fill the socket's receive buffer or the socket is paused (then it
// waits in the emulator's queue for the client to read).
int inject(int fd, const std::vector<uint8_t> &bytes);

// Runs an emulator command ("dump", "drop-replies N", "mgroup-add ...") about
// routing socket `fd` (-1: none) and returns its output; `err` gets 0 or the
// errno of a refusal.
std::string command(int fd, const std::string &text, int *err = nullptr);

// The value of `field` in the "state" of routing socket `fd` ("" if the
// emulator does not know the socket or the field).
std::string socket_state(int fd, const std::string &field);

// The permission bits of the socket file at `path`; 07777 when it is not a
// socket.
unsigned socket_file_mode(const std::string &path);

// `bytes` as the commands take them: two hex digits a byte, "-" for none.
std::string hex(const std::vector<uint8_t> &bytes);

// A raw routing-socket message: `total` bytes with the header's length word
// set to `claimed` (default: total), sequence `seq`, type and operation.
std::vector<uint8_t> raw_message(uint32_t total, uint32_t seq, uint8_t type = 2, uint8_t op = 1,
                                 int64_t claimed = -1);

// An IDL envelope header with the given magic and body length, followed by
// `body` zero bytes.
std::vector<uint8_t> envelope(uint32_t magic, uint32_t body_len_field, uint32_t body);

}  // namespace tarn::test

#endif  // TARN_TESTS_EMU_CLIENT_H

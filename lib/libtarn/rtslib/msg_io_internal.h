// Shared steps of the read calls.
#ifndef LIBTARN_RTSLIB_MSG_IO_INTERNAL_H
#define LIBTARN_RTSLIB_MSG_IO_INTERNAL_H

#include <cstdint>

#include <tarn/rtslib.h>

namespace tarn {

// Reads one message into buf (size bytes at most) and checks its length
// against its header: 0 with the length in *len_out, EIO when the header
// claims more than arrived, or the read's errno (reported unless EAGAIN).
int read_message(rtslib_cookie *h, uint8_t *buf, uint32_t size, uint32_t *len_out);

// Reads one message of at most RTS_MSG_MAX bytes into the handle's read
// buffer, with rtslib_msg_read's length and sequence checks. Nothing is
// allocated before the message is off the socket.
int read_to_buffer(rtslib_cookie *h, uint32_t *len_out);

// Compares a message's sequence number with the handle's: 0, or
// RTSLIB_SEQ_MISMATCH after the hook or a report. With an asynchronous
// context the handle's counter follows the message.
int check_sequence(rtslib_cookie *h, const uint8_t *msg);

// Decodes an envelope (into the caller's arena when arena_base is given)
// for a caller that goes on to use the record. A type without a member
// record decodes to no record at all; wherever a record is needed that is a
// malformed message: reported, EIO, nothing left allocated.
int decode_record(rtslib_cookie *h, const void *buf, uint32_t len, void **record_out,
                  void **map_out, void *arena_base = nullptr, uint32_t arena_size = 0);

// Reports an envelope of `type` that decoded to no record, and gives EIO.
int missing_record(rtslib_cookie *h, uint32_t type);

// A block from the allocator rtslib_msg_free returns to, with undefined
// contents: for blocks whose every byte the library writes before anyone
// reads it. Null when the handle is null or memory runs out.
void *uncleared_block(rtslib_cookie *handle, uint32_t size);

// rtslib_msg_idl_decode, with the same results, reports and block (released
// by rtslib_msg_idl_release), except that the arena is not cleared first:
// the decoders clear every record and map they place in it, and the rest of
// the block is nobody's to read.
int decode_to_new_block(rtslib_cookie *h, const void *buf, uint32_t len, void **record_out,
                        void **map_out);

}  // namespace tarn

#endif  // LIBTARN_RTSLIB_MSG_IO_INTERNAL_H

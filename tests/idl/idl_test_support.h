// Helpers shared by the codec tests: a counting allocator with fault
// injection, random records built from the generated metadata, a deep
// comparison, and an independent TLV walker.
#ifndef TARN_TESTS_IDL_TEST_SUPPORT_H
#define TARN_TESTS_IDL_TEST_SUPPORT_H

#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "idl_meta.h"

namespace tarn::test {

// Tracks every block it hands out; fail_at = N makes the N-th call (from 1)
// fail; max_block refuses larger requests, as a bounded arena would.
struct CountingAllocator {
    std::map<void *, uint32_t> live;
    uint64_t calls = 0;
    uint64_t fail_at = 0;
    uint32_t max_block = 1u << 20;

    static void *alloc(uint32_t size, void *self);
    static void free(void *block, void *self);
    ~CountingAllocator();
};

// Owns the blocks of records built by a test. Blocks start filled with
// `fill`; a non-zero fill leaves recognisable bytes in the records' padding.
class Pool {
public:
    explicit Pool(uint8_t fill = 0) : fill_(fill) {}
    void *get(std::size_t size);

private:
    uint8_t fill_;
    std::vector<std::unique_ptr<std::max_align_t[]>> blocks_;
};

// A record (and its map) with random field values and, when with_map, random
// presence bits. Arrays hold 0-3 elements, strings 0-19 bytes.
struct RandomRecord {
    void *rec;
    void *map;  // null when built without a map
};
RandomRecord random_record(const idlmeta::Type &t, std::mt19937 &rng, Pool &pool, bool with_map,
                           int depth = 0);

// Compares a decoded record with its source. With a source map, fields the
// map leaves out must be zero in the decoded record and absent from its map;
// without, every field must match. Returns "" or a description of the first
// difference.
std::string compare_records(const idlmeta::Type &t, const void *src, const void *src_map,
                            const void *got, const void *got_map);

// Walks a TLV encoding of type t without the generated code: items 4-aligned
// from the record's start, lengths inside the buffer, zero padding, known tags
// in declaration order, scalar widths, string lengths matching, nested values
// walked recursively, array items adjacent. Returns "" or the first fault.
std::string walk_tlv(const idlmeta::Type &t, const uint8_t *buf, uint32_t len);

const idlmeta::Type &meta(const char *name);

std::string hex(const uint8_t *p, std::size_t n);

}  // namespace tarn::test

#endif

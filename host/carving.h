// Sizing a work area and carving it: the state of one calculation or one carving lies in the caller's record.
//
// Invariant: a work area of the calculated total, starting at any address, serves the same sequence of blocks. The
// total is the least such size: the calculation follows all eight positions that an address can have between two
// multiples of eight. A total serves nested areas too, which are blocks of alignment 1.
//
// Thread rule: one thread at a time per record.
#pragma once

#include <cstdint>

#include "zel_base_rtc_bridge.h"

namespace zel::host {

/** Blocks come from the `work_size` bytes at `work`; from a null area or one of negative size, none. */
void fixed_allocator_create(void* work, std::int32_t work_size, ZelFixedAllocatorRecord* record) noexcept;
/** No more blocks; those handed out stay valid. */
void fixed_allocator_destroy(ZelFixedAllocatorRecord* record) noexcept;
/** The next block; `alignment` is a power of two. Null, and nothing taken, when it does not fit. */
void* fixed_allocator_allocate(ZelFixedAllocatorRecord* record, std::uint32_t size, std::uint32_t alignment) noexcept;

void work_size_begin(ZelWorkSizeRecord* record) noexcept;
/** One block of size * count bytes; `alignment` is 1, 2, 4 or 8. A negative size or another alignment spoils the total,
 * for good. */
void work_size_add(ZelWorkSizeRecord* record, std::int64_t size, std::uint32_t count, std::uint32_t alignment) noexcept;
/** Bytes, or -1 when they do not fit or the total is spoilt. */
std::int32_t work_size_total(ZelWorkSizeRecord* record) noexcept;

}  // namespace zel::host

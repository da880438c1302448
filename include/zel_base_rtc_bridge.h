/* Host services of the speech-to-text plug-in: the table of functions through which the library reaches everything but
 * HTTP, and the record that installs the table.
 *
 * Conventions of every slot:
 *  1. Text is NUL-terminated 8-bit text; the library never looks at its encoding.
 *  2. Sizes and counts are bytes unless said otherwise.
 *  3. A truth value is a u32: 0 false, anything else true.
 *  4. A handle is an opaque host pointer; null means failure and is never passed on, except where a slot says so.
 *  5. Pointers that the library passes belong to the library and are valid for the call only, except work areas, which
 *     are the host object's until it is destroyed (joined, for a thread), a thread's argument, and what slots 34 and 35
 *     register, which stays until it is replaced.
 *  6. Every slot must be callable from any thread at any time, concurrently with itself and every other slot. A slot
 *     may block only where it says so.
 *  7. A result described as "ignored" is never looked at.
 *  8. No slot may throw or unwind through the library.
 *
 * Compiles alone as C11 and as C++. */
#ifndef ZEL_BASE_RTC_BRIDGE_H
#define ZEL_BASE_RTC_BRIDGE_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ZEL_STATIC_ASSERT(condition, text) static_assert(condition, text)
extern "C" {
#else
#define ZEL_STATIC_ASSERT(condition, text) _Static_assert(condition, text)
#endif

/* When one of the assertions below trips, the compiler lays records out in another way than the library was built with:
 * look for a packing option, or a target that is not 64-bit. */
#define ZEL_ASSERT_SIZE(record, bytes) ZEL_STATIC_ASSERT(sizeof(record) == (bytes), #record " has another size")
#define ZEL_ASSERT_OFFSET(record, field, bytes) \
  ZEL_STATIC_ASSERT(offsetof(record, field) == (bytes), #record "::" #field " lies elsewhere")

/** Version of the bridge record that this header describes. */
#define ZEL_BASE_RTC_BRIDGE_VERSION 0x20230503u

/** Bytes of the work area that each mutex, event and thread gets; the area may start at any address. */
#define ZEL_HOST_OBJECT_WORK_SIZE 72

/** Levels of a report. */
enum { ZEL_ERR_LEVEL_ERROR = 0, ZEL_ERR_LEVEL_WARNING = 1 };

/** Codes of slot 25. */
enum {
  ZEL_ERR_INVALID_PARAMETER = -2, /**< null pointer, value out of range, work area too small, wrong check value */
  ZEL_ERR_ALLOCATION = -3,        /**< the application's allocator returned nothing */
  ZEL_ERR_NOT_INITIALIZED = -6    /**< the library or its session registry is not initialized */
};

/** Lanes of the ring buffer. */
enum {
  ZEL_RING_LANE_FREE = 0, /**< free bytes; all bytes are here after creation and reset */
  ZEL_RING_LANE_DATA = 1  /**< written bytes, first in first out */
};

/** State of one carving (slots 27 to 29). The library provides the storage; the content is the host's. */
typedef struct ZelFixedAllocatorRecord {
  uint64_t host_state[3];
} ZelFixedAllocatorRecord;
ZEL_ASSERT_SIZE(ZelFixedAllocatorRecord, 24);

/** State of one work-size calculation (slots 30, 31, 33). The library provides the storage, the host the content. */
typedef struct ZelWorkSizeRecord {
  uint64_t host_state[3];
} ZelWorkSizeRecord;
ZEL_ASSERT_SIZE(ZelWorkSizeRecord, 24);

/** The application's allocation functions as the host keeps them (slots 34 to 38). One per process, in the library's
 * storage, all zero when the library is loaded; the content is the host's. */
typedef struct ZelUserAllocatorRecord {
  uint64_t host_state[5];
} ZelUserAllocatorRecord;
ZEL_ASSERT_SIZE(ZelUserAllocatorRecord, 40);

/** The application's allocation function: `size` bytes aligned for any type, or null. `object` is the pointer that was
 * registered with it. The library passes function and object on and leaves the call to the host. */
typedef void* (*ZelUserMallocFunction)(void* object, uint32_t size);

/** The application's release function for a pointer that the allocation function returned. */
typedef void (*ZelUserFreeFunction)(void* object, void* pointer);

/** What the library asks of a ring buffer; it always passes 0, 163840, 81920, 8 and "". */
typedef struct ZelRingBufferConfig {
  uint32_t reserved;       /**< always 0 */
  uint32_t buffer_size;    /**< bytes that the two lanes hold together */
  uint32_t max_chunk_size; /**< longest stream that is posted; lane 1 may be asked for more, up to all it holds */
  uint32_t max_chunks;     /**< finished streams that may wait outside the lanes, besides one chunk in use */
  const char* name;        /**< never null */
} ZelRingBufferConfig;
ZEL_ASSERT_SIZE(ZelRingBufferConfig, 24);
ZEL_ASSERT_OFFSET(ZelRingBufferConfig, name, 16);

/** A run of contiguous ring-buffer bytes. An empty one (0 bytes) may be passed wherever a chunk may, and does
 * nothing. */
typedef struct ZelRingBufferChunk {
  uint8_t* data; /**< first byte; means nothing when `size` is 0 */
  uint32_t size; /**< bytes */
} ZelRingBufferChunk;
ZEL_ASSERT_SIZE(ZelRingBufferChunk, 16);
ZEL_ASSERT_OFFSET(ZelRingBufferChunk, data, 0);
ZEL_ASSERT_OFFSET(ZelRingBufferChunk, size, 8);

/** Entry of a thread. */
typedef void (*ZelThreadEntry)(void* argument);

/** A slot that this library never calls; any value will do. */
typedef void (*ZelReservedSlot)(void);

/** The host's services by slot number. The library keeps a pointer to the table, never a copy of an entry: the table
 * must stay valid and unchanged as long as any library function can run. */
typedef struct BridgeTable {
  ZelReservedSlot reserved_0_1[2];

  /* 2, 3: 32-bit atomics on aligned words, sequentially consistent. Never block. */
  uint32_t (*atomic_load)(const uint32_t* word);
  void (*atomic_store)(uint32_t* word, uint32_t value);

  ZelReservedSlot reserved_4_6[3];

  /* 7: copies `source`, cut so that at most `capacity` bytes are written, terminator included. Result ignored. */
  int32_t (*string_copy)(char* destination, uint64_t capacity, const char* source);

  ZelReservedSlot reserved_8_9[2];

  /* 10: bytes in front of the terminator. */
  uint32_t (*string_length)(const char* string);
  /* 11: printf formatting, cut so that at most `capacity` bytes are written, terminator included. Result ignored. */
  int32_t (*string_format)(char* destination, uint64_t capacity, const char* format, va_list arguments);
  /* 12: copies `size` bytes; 0 and nothing copied when `size` exceeds `capacity`, otherwise nonzero. */
  uint32_t (*memory_copy)(void* destination, uint64_t capacity, const void* source, uint64_t size);
  /* 13: sets `size` bytes to zero. */
  void (*memory_clear)(void* destination, uint64_t size);

  /* 14: a recursive mutex in `work` (72 bytes at any address); null when `work` is null or unusable. */
  void* (*mutex_create)(void* work, int32_t work_size);
  /* 15: the mutex is not locked; its work area is the library's again. */
  void (*mutex_destroy)(void* mutex);
  /* 16: blocks until the calling thread owns the mutex. A thread that owns it may lock it again. */
  void (*mutex_lock)(void* mutex);
  /* 17: undoes one lock of the calling thread. Result ignored. */
  int32_t (*mutex_unlock)(void* mutex);

  ZelReservedSlot reserved_18_21[4];

  /* 22 to 25: reports, from any thread, possibly while the library holds its locks: must not call the library. Strings
   * are constants of the library or valid for the call. In 23 and 24 `format` is a printf format whose conversions are
   * "%s" (the argument is a pointer), "%u", "%lu" and "%08x" (an integer); each argument is 64 bits wide whatever its
   * conversion, so the format must not be handed to printf as it is. There may be more arguments than conversions.
   * 25: `identifier` alone at level 0, with a negative code; result ignored. */
  void (*err_notify)(uint32_t level, const char* message);
  void (*err_notify1)(uint32_t level, const char* format, uint64_t argument);
  void (*err_notify2)(uint32_t level, const char* format, uint64_t argument1, uint64_t argument2);
  int32_t (*err_notify_param)(uint32_t level, const char* identifier, int32_t code);

  ZelReservedSlot reserved_26;

  /* 27 to 29: carving of a work area into consecutive blocks. Alignment is 1, 4 or 8. Ending a carving leaves the
   * blocks valid and does not touch the area, which may have been given back. 29: null when the area is exhausted. */
  void (*fixed_allocator_create)(void* work, int32_t work_size, ZelFixedAllocatorRecord* record);
  void (*fixed_allocator_destroy)(ZelFixedAllocatorRecord* record);
  void* (*fixed_allocator_allocate)(ZelFixedAllocatorRecord* record, uint32_t size, uint32_t alignment);

  /* 30, 31, 33: the size of a work area from which the same sequence of blocks can be carved, whatever address it
   * starts at. 31 accounts for one block of size * count bytes. A total that does not fit an i32 should be negative. */
  void (*work_size_begin)(ZelWorkSizeRecord* record);
  void (*work_size_add)(ZelWorkSizeRecord* record, int64_t size, uint32_t count, uint32_t alignment);

  ZelReservedSlot reserved_32;

  int32_t (*work_size_total)(ZelWorkSizeRecord* record);

  /* 34 to 38: the application's allocator. 38: true when allocation through the record is possible. 36 and 37 are
   * called only while the library or a session is created or destroyed. */
  void (*user_allocator_set_malloc)(ZelUserAllocatorRecord* record, ZelUserMallocFunction function, void* object);
  void (*user_allocator_set_free)(ZelUserAllocatorRecord* record, ZelUserFreeFunction function, void* object);
  void* (*user_allocator_allocate)(ZelUserAllocatorRecord* record, uint32_t size);
  void (*user_allocator_free)(ZelUserAllocatorRecord* record, void* pointer);
  uint32_t (*user_allocator_is_set)(ZelUserAllocatorRecord* record);

  ZelReservedSlot reserved_39_42[4];

  /* 43, 44: bytes for a ring buffer (negative on failure), and the ring buffer in `work`; null when `work` is null or
   * too small. */
  int32_t (*ring_buffer_calculate_work_size)(const ZelRingBufferConfig* config);
  void* (*ring_buffer_create)(const ZelRingBufferConfig* config, void* work, uint32_t work_size);

  ZelReservedSlot reserved_45_46[2];

  /* 47: the ring buffer's work area is the library's again. */
  void (*ring_buffer_destroy)(void* ring);
  /* 48: all bytes back in lane 0, lane 1 empty; chunks that are out are void. */
  void (*ring_buffer_reset)(void* ring);
  /* 49: takes up to `size` bytes from the front of `lane` as one contiguous chunk that stays where it is until it is
   * released or committed. A lane that holds at least `size` bytes must give exactly `size`; otherwise the chunk tells
   * what was had (null and 0 for nothing). */
  void (*ring_buffer_acquire)(void* ring, uint32_t lane, uint32_t size, ZelRingBufferChunk* chunk);
  /* 50: puts a chunk, or the unused tail of one, back at the front of the lane it came from. */
  void (*ring_buffer_release)(void* ring, uint32_t lane, const ZelRingBufferChunk* chunk);
  /* 51: appends a chunk at the back of `lane`: written bytes to lane 1, used ones to lane 0. */
  void (*ring_buffer_commit)(void* ring, uint32_t lane, const ZelRingBufferChunk* chunk);
  /* 52: bytes in `lane`. */
  uint32_t (*ring_buffer_get_data_size)(void* ring, uint32_t lane);
  /* 53: `head` becomes the first `size` bytes of `source`, `tail` the rest; touches no lane. `head` may be `source`. */
  void (*ring_buffer_split_chunk)(const ZelRingBufferChunk* source, uint32_t size, ZelRingBufferChunk* head,
                                  ZelRingBufferChunk* tail);

  ZelReservedSlot reserved_54_74[21];

  /* 75: starts a thread in `work` (72 bytes at any address) that calls entry(argument); `name` is a constant. Null on
   * failure. */
  void* (*thread_create)(void* work, int32_t work_size, ZelThreadEntry entry, void* argument, const char* name);

  ZelReservedSlot reserved_76;

  /* 77: blocks until the entry has returned, then gives the thread's resources back. */
  void (*thread_join)(void* thread);
  /* 78: blocks for about that time. */
  void (*thread_sleep)(uint32_t milliseconds);

  /* 79, 80: start and stop of the clock service, called in nested pairs. */
  void (*timer_initialize)(void);
  void (*timer_finalize)(void);
  /* 81: a monotonic count. 82: counts per second, never 0. 83: counts from `start` to `current`. */
  uint64_t (*timer_get_count)(void);
  uint64_t (*timer_get_frequency)(void);
  uint64_t (*timer_get_elapsed)(uint64_t start, uint64_t current);

  /* 84 to 87: an auto-reset event in `work` (72 bytes at any address). A wait blocks until the event is signalled and
   * consumes the signal; a signal wakes one waiter and stays pending while nobody waits. */
  void* (*event_create)(void* work, int32_t work_size);
  void (*event_destroy)(void* event);
  void (*event_wait)(void* event);
  void (*event_signal)(void* event);
} BridgeTable;

/** What zelRtcSpeechToText_SetBaseRtcBridgeInterface installs. The library copies this record, not the table. */
typedef struct ZelBaseRtcBridgeInterface {
  uint32_t version;         /**< ZEL_BASE_RTC_BRIDGE_VERSION */
  const BridgeTable* table; /**< at least 88 entries; never null */
} ZelBaseRtcBridgeInterface;
ZEL_ASSERT_SIZE(ZelBaseRtcBridgeInterface, 16);
ZEL_ASSERT_OFFSET(ZelBaseRtcBridgeInterface, version, 0);
ZEL_ASSERT_OFFSET(ZelBaseRtcBridgeInterface, table, 8);

#define ZEL_ASSERT_SLOT(field, slot) ZEL_ASSERT_OFFSET(BridgeTable, field, sizeof(ZelReservedSlot) * (slot))
ZEL_ASSERT_SIZE(BridgeTable, sizeof(ZelReservedSlot) * 88);
ZEL_ASSERT_SLOT(atomic_load, 2);
ZEL_ASSERT_SLOT(atomic_store, 3);
ZEL_ASSERT_SLOT(string_copy, 7);
ZEL_ASSERT_SLOT(string_length, 10);
ZEL_ASSERT_SLOT(string_format, 11);
ZEL_ASSERT_SLOT(memory_copy, 12);
ZEL_ASSERT_SLOT(memory_clear, 13);
ZEL_ASSERT_SLOT(mutex_create, 14);
ZEL_ASSERT_SLOT(mutex_destroy, 15);
ZEL_ASSERT_SLOT(mutex_lock, 16);
ZEL_ASSERT_SLOT(mutex_unlock, 17);
ZEL_ASSERT_SLOT(err_notify, 22);
ZEL_ASSERT_SLOT(err_notify1, 23);
ZEL_ASSERT_SLOT(err_notify2, 24);
ZEL_ASSERT_SLOT(err_notify_param, 25);
ZEL_ASSERT_SLOT(fixed_allocator_create, 27);
ZEL_ASSERT_SLOT(fixed_allocator_destroy, 28);
ZEL_ASSERT_SLOT(fixed_allocator_allocate, 29);
ZEL_ASSERT_SLOT(work_size_begin, 30);
ZEL_ASSERT_SLOT(work_size_add, 31);
ZEL_ASSERT_SLOT(work_size_total, 33);
ZEL_ASSERT_SLOT(user_allocator_set_malloc, 34);
ZEL_ASSERT_SLOT(user_allocator_set_free, 35);
ZEL_ASSERT_SLOT(user_allocator_allocate, 36);
ZEL_ASSERT_SLOT(user_allocator_free, 37);
ZEL_ASSERT_SLOT(user_allocator_is_set, 38);
ZEL_ASSERT_SLOT(ring_buffer_calculate_work_size, 43);
ZEL_ASSERT_SLOT(ring_buffer_create, 44);
ZEL_ASSERT_SLOT(ring_buffer_destroy, 47);
ZEL_ASSERT_SLOT(ring_buffer_reset, 48);
ZEL_ASSERT_SLOT(ring_buffer_acquire, 49);
ZEL_ASSERT_SLOT(ring_buffer_release, 50);
ZEL_ASSERT_SLOT(ring_buffer_commit, 51);
ZEL_ASSERT_SLOT(ring_buffer_get_data_size, 52);
ZEL_ASSERT_SLOT(ring_buffer_split_chunk, 53);
ZEL_ASSERT_SLOT(thread_create, 75);
ZEL_ASSERT_SLOT(thread_join, 77);
ZEL_ASSERT_SLOT(thread_sleep, 78);
ZEL_ASSERT_SLOT(timer_initialize, 79);
ZEL_ASSERT_SLOT(timer_finalize, 80);
ZEL_ASSERT_SLOT(timer_get_count, 81);
ZEL_ASSERT_SLOT(timer_get_frequency, 82);
ZEL_ASSERT_SLOT(timer_get_elapsed, 83);
ZEL_ASSERT_SLOT(event_create, 84);
ZEL_ASSERT_SLOT(event_destroy, 85);
ZEL_ASSERT_SLOT(event_wait, 86);
ZEL_ASSERT_SLOT(event_signal, 87);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_BASE_RTC_BRIDGE_H */

#include "system.h"
/* Behind it: */
#include <inttypes.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>

#include "minimal_bridge.h"

static atomic_uint chunks_out;
static atomic_uint errors;

/* ---- Atomics, strings, memory ---- */

static uint32_t atomic_load_word(const uint32_t* word) {
  return atomic_load((const _Atomic uint32_t*)word);
}
static void atomic_store_word(uint32_t* word, uint32_t value) {
  atomic_store((_Atomic uint32_t*)word, value);
}
static int32_t string_copy(char* destination, uint64_t capacity, const char* source) {
  return snprintf(destination, capacity, "%s", source);
}
static uint32_t string_length(const char* string) {
  return (uint32_t)strlen(string);
}
static int32_t string_format(char* destination, uint64_t capacity, const char* format, va_list arguments) {
  return vsnprintf(destination, capacity, format, arguments);
}
static uint32_t memory_copy(void* destination, uint64_t capacity, const void* source, uint64_t size) {
  if (size > capacity) return 0;
  if (size > 0) memcpy(destination, source, size);
  return 1;
}
static void memory_clear(void* destination, uint64_t size) {
  if (size > 0) memset(destination, 0, size);
}

/* ---- Mutexes, events, threads, clock ---- */

/* Work areas may begin at any address: objects stand at the first multiple of eight. Null when there is no room. */
static void* place(void* work, int64_t work_size, size_t size) {
  if (work == NULL || work_size < (int64_t)size + 7) return NULL;
  return (char*)work + (8 - (uintptr_t)work % 8) % 8;
}

static void* mutex_create(void* work, int32_t work_size) {
  SystemMutex* mutex = place(work, work_size, sizeof *mutex);
  if (mutex != NULL) system_mutex_init(mutex);
  return mutex;
}

static void* event_create(void* work, int32_t work_size) {
  SystemEvent* event = place(work, work_size, sizeof *event);
  return event != NULL && system_event_init(event) ? event : NULL;
}

static void* thread_create(void* work, int32_t work_size, ZelThreadEntry entry, void* argument, const char* name) {
  (void)name; /* for debuggers */
  SystemThread* thread = place(work, work_size, sizeof *thread);
  if (thread == NULL) return NULL;
  thread->entry = entry;
  thread->argument = argument;
  return system_thread_start(thread) ? thread : NULL;
}

static void timer_start_or_stop(void) {} /* the system's clock always runs */
static uint64_t timer_get_elapsed(uint64_t start, uint64_t current) {
  return current - start;
}

/* ---- Reports ---- */

typedef struct Line {
  char text[1024];
  size_t length;
} Line;

/* Forgets what no longer fits. */
static void append(Line* line, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line->text + line->length, sizeof line->text - line->length, format, arguments);
  va_end(arguments);
  line->length += strlen(line->text + line->length);
}

/* Whether `*format` begins with that conversion, which is then passed over. */
static int take(const char** format, const char* conversion) {
  const size_t length = strlen(conversion);
  if (strncmp(*format, conversion, length) != 0) return 0;
  *format += length;
  return 1;
}

/* Every argument is 64 bits wide, whatever its conversion says. */
static void report(uint32_t level, const char* format, uint64_t argument1, uint64_t argument2) {
  const uint64_t arguments[] = {argument1, argument2};
  const uint64_t* next = arguments;
  Line line = {.length = 0};
  append(&line, "%s: ", level == ZEL_ERR_LEVEL_ERROR ? "error" : "warning");
  while (*format != '\0') {
    const int available = next < arguments + 2;
    if (available && take(&format, "%s")) {
      const char* text = (const char*)(uintptr_t)*next++;
      append(&line, "%s", text != NULL ? text : "(null)");
    } else if (available && (take(&format, "%u") || take(&format, "%lu"))) {
      append(&line, "%" PRIu64, *next++);
    } else if (available && take(&format, "%08x")) {
      append(&line, "%08" PRIx64, *next++);
    } else {
      append(&line, "%c", *format++);
    }
  }
  fprintf(stderr, "%s\n", line.text);
  if (level == ZEL_ERR_LEVEL_ERROR) atomic_fetch_add(&errors, 1);
}

static void err_notify(uint32_t level, const char* message) {
  report(level, "%s", (uintptr_t)message, 0);
}
static void err_notify1(uint32_t level, const char* format, uint64_t argument) {
  report(level, format, argument, 0);
}
static int32_t err_notify_param(uint32_t level, const char* identifier, int32_t code) {
  report(level, "%s: refused argument, code -%u", (uintptr_t)identifier, (uint64_t) - (int64_t)code);
  return code;
}

/* ---- Work areas: sized with the padding that each block can need, carved block by block ---- */

static void work_size_begin(ZelWorkSizeRecord* record) {
  record->host_state[0] = 0;
}
static void work_size_add(ZelWorkSizeRecord* record, int64_t size, uint32_t count, uint32_t alignment) {
  uint64_t* total = &record->host_state[0];
  const int fits = size >= 0 && (count == 0 || size <= INT32_MAX / count);
  *total = fits && *total <= INT32_MAX ? *total + (uint64_t)size * count + alignment - 1 : UINT64_MAX;
}
static int32_t work_size_total(ZelWorkSizeRecord* record) {
  return record->host_state[0] <= INT32_MAX ? (int32_t)record->host_state[0] : -1;
}

static void fixed_allocator_create(void* work, int32_t work_size, ZelFixedAllocatorRecord* record) {
  record->host_state[0] = (uintptr_t)work;
  record->host_state[1] = work != NULL && work_size > 0 ? (uintptr_t)work + (uint32_t)work_size : (uintptr_t)work;
}
static void fixed_allocator_destroy(ZelFixedAllocatorRecord* record) {
  record->host_state[0] = record->host_state[1] = 0;
}
static void* fixed_allocator_allocate(ZelFixedAllocatorRecord* record, uint32_t size, uint32_t alignment) {
  const uint64_t begin = (record->host_state[0] + alignment - 1) / alignment * alignment;
  if (begin == 0 || begin > record->host_state[1] || size > record->host_state[1] - begin) return NULL;
  record->host_state[0] = begin + size;
  return (void*)(uintptr_t)begin;
}

/* ---- The application's allocator: allocation function, its object, release function, its object ---- */

static void user_allocator_set_malloc(ZelUserAllocatorRecord* record, ZelUserMallocFunction function, void* object) {
  record->host_state[0] = (uintptr_t)function;
  record->host_state[1] = (uintptr_t)object;
}
static void user_allocator_set_free(ZelUserAllocatorRecord* record, ZelUserFreeFunction function, void* object) {
  record->host_state[2] = (uintptr_t)function;
  record->host_state[3] = (uintptr_t)object;
}
static void* user_allocator_allocate(ZelUserAllocatorRecord* record, uint32_t size) {
  const ZelUserMallocFunction function = (ZelUserMallocFunction)(uintptr_t)record->host_state[0];
  return function != NULL ? function((void*)(uintptr_t)record->host_state[1], size) : NULL;
}
static void user_allocator_free(ZelUserAllocatorRecord* record, void* pointer) {
  const ZelUserFreeFunction function = (ZelUserFreeFunction)(uintptr_t)record->host_state[2];
  if (function != NULL && pointer != NULL) function((void*)(uintptr_t)record->host_state[3], pointer);
}
static uint32_t user_allocator_is_set(ZelUserAllocatorRecord* record) {
  return record->host_state[0] != 0;
}

/* ---- Ring buffers ---- */

/* Every chunk that is out has an area of its own, as long as both lanes together; lane 1 is one more. Chunks are copied
 * in and out, so that they stay where they are and nothing fragments. Costs ten times the memory of a true ring. */
enum { kMaxAreas = 16 };

typedef struct Ring {
  SystemMutex mutex;
  uint32_t capacity;       /* bytes of both lanes, and of an area */
  uint32_t free;           /* bytes in lane 0 */
  uint32_t data;           /* bytes in lane 1 */
  uint32_t areas;          /* areas for chunks, behind lane 1 */
  uint32_t out[kMaxAreas]; /* bytes of each area that have not come back yet; 0: the area is free */
  uint8_t bytes[];         /* lane 1, then the areas */
} Ring;

static uint8_t* area_of(Ring* ring, size_t area) {
  return ring->bytes + (area + 1) * ring->capacity;
}

static int32_t ring_buffer_calculate_work_size(const ZelRingBufferConfig* config) {
  if (config->max_chunks >= kMaxAreas) return -1;
  const uint64_t total = sizeof(Ring) + 7 + (config->max_chunks + 2) * (uint64_t)config->buffer_size;
  return total <= INT32_MAX ? (int32_t)total : -1;
}

static void* ring_buffer_create(const ZelRingBufferConfig* config, void* work, uint32_t work_size) {
  const int32_t needed = ring_buffer_calculate_work_size(config);
  if (needed < 0 || work_size < (uint32_t)needed) return NULL;
  Ring* ring = place(work, work_size, sizeof *ring);
  if (ring == NULL) return NULL;
  *ring = (Ring){.capacity = config->buffer_size, .free = config->buffer_size, .areas = config->max_chunks + 1};
  system_mutex_init(&ring->mutex);
  return ring;
}

static void ring_buffer_reset(void* handle) {
  Ring* ring = handle;
  system_mutex_lock(&ring->mutex);
  for (uint32_t area = 0; area < ring->areas; ++area) {
    if (ring->out[area] > 0) atomic_fetch_sub(&chunks_out, 1);
    ring->out[area] = 0;
  }
  ring->data = 0;
  ring->free = ring->capacity;
  system_mutex_unlock(&ring->mutex);
}

static void ring_buffer_destroy(void* handle) {
  ring_buffer_reset(handle);
  system_mutex_destroy(&((Ring*)handle)->mutex);
}

static void ring_buffer_acquire(void* handle, uint32_t lane, uint32_t size, ZelRingBufferChunk* chunk) {
  Ring* ring = handle;
  *chunk = (ZelRingBufferChunk){NULL, 0};
  system_mutex_lock(&ring->mutex);
  uint32_t* lane_bytes = lane == ZEL_RING_LANE_DATA ? &ring->data : &ring->free;
  uint32_t area = 0;
  while (area < ring->areas && ring->out[area] > 0)
    ++area;
  if (size > *lane_bytes) size = *lane_bytes;
  if (size > 0 && area < ring->areas) {
    *chunk = (ZelRingBufferChunk){area_of(ring, area), size};
    ring->out[area] = size;
    *lane_bytes -= size;
    if (lane == ZEL_RING_LANE_DATA) {
      memcpy(chunk->data, ring->bytes, size);
      memmove(ring->bytes, ring->bytes + size, ring->data);
    }
    atomic_fetch_add(&chunks_out, 1);
  }
  system_mutex_unlock(&ring->mutex);
}

/* Puts a chunk into a lane, at byte `position` of lane 1; free bytes have no order. Does nothing for a chunk that is
 * not out. */
static void give_back(Ring* ring, uint32_t lane, const ZelRingBufferChunk* chunk, uint32_t position) {
  if (chunk->size == 0) return;
  const size_t area = (size_t)((uintptr_t)chunk->data - (uintptr_t)area_of(ring, 0)) / ring->capacity;
  if (area >= ring->areas || chunk->size > ring->out[area]) return;
  if (lane == ZEL_RING_LANE_DATA) {
    memmove(ring->bytes + position + chunk->size, ring->bytes + position, ring->data - position);
    memcpy(ring->bytes + position, chunk->data, chunk->size);
    ring->data += chunk->size;
  } else {
    ring->free += chunk->size;
  }
  ring->out[area] -= chunk->size;
  if (ring->out[area] == 0) atomic_fetch_sub(&chunks_out, 1);
}

static void ring_buffer_release(void* handle, uint32_t lane, const ZelRingBufferChunk* chunk) {
  Ring* ring = handle;
  system_mutex_lock(&ring->mutex);
  give_back(ring, lane, chunk, 0);
  system_mutex_unlock(&ring->mutex);
}

static void ring_buffer_commit(void* handle, uint32_t lane, const ZelRingBufferChunk* chunk) {
  Ring* ring = handle;
  system_mutex_lock(&ring->mutex);
  give_back(ring, lane, chunk, ring->data);
  system_mutex_unlock(&ring->mutex);
}

static uint32_t ring_buffer_get_data_size(void* handle, uint32_t lane) {
  Ring* ring = handle;
  system_mutex_lock(&ring->mutex);
  const uint32_t size = lane == ZEL_RING_LANE_DATA ? ring->data : ring->free;
  system_mutex_unlock(&ring->mutex);
  return size;
}

static void ring_buffer_split_chunk(const ZelRingBufferChunk* source, uint32_t size, ZelRingBufferChunk* head,
                                    ZelRingBufferChunk* tail) {
  const ZelRingBufferChunk whole = *source;
  if (size > whole.size) size = whole.size;
  *head = (ZelRingBufferChunk){whole.data, size};
  *tail = (ZelRingBufferChunk){size < whole.size ? whole.data + size : NULL, whole.size - size};
}

/* ---- The table ---- */

static const BridgeTable table = {
    .atomic_load = atomic_load_word,
    .atomic_store = atomic_store_word,
    .string_copy = string_copy,
    .string_length = string_length,
    .string_format = string_format,
    .memory_copy = memory_copy,
    .memory_clear = memory_clear,
    .mutex_create = mutex_create,
    .mutex_destroy = system_mutex_destroy,
    .mutex_lock = system_mutex_lock,
    .mutex_unlock = system_mutex_unlock,
    .err_notify = err_notify,
    .err_notify1 = err_notify1,
    .err_notify2 = report,
    .err_notify_param = err_notify_param,
    .fixed_allocator_create = fixed_allocator_create,
    .fixed_allocator_destroy = fixed_allocator_destroy,
    .fixed_allocator_allocate = fixed_allocator_allocate,
    .work_size_begin = work_size_begin,
    .work_size_add = work_size_add,
    .work_size_total = work_size_total,
    .user_allocator_set_malloc = user_allocator_set_malloc,
    .user_allocator_set_free = user_allocator_set_free,
    .user_allocator_allocate = user_allocator_allocate,
    .user_allocator_free = user_allocator_free,
    .user_allocator_is_set = user_allocator_is_set,
    .ring_buffer_calculate_work_size = ring_buffer_calculate_work_size,
    .ring_buffer_create = ring_buffer_create,
    .ring_buffer_destroy = ring_buffer_destroy,
    .ring_buffer_reset = ring_buffer_reset,
    .ring_buffer_acquire = ring_buffer_acquire,
    .ring_buffer_release = ring_buffer_release,
    .ring_buffer_commit = ring_buffer_commit,
    .ring_buffer_get_data_size = ring_buffer_get_data_size,
    .ring_buffer_split_chunk = ring_buffer_split_chunk,
    .thread_create = thread_create,
    .thread_join = system_thread_join,
    .thread_sleep = system_sleep,
    .timer_initialize = timer_start_or_stop,
    .timer_finalize = timer_start_or_stop,
    .timer_get_count = system_clock_count,
    .timer_get_frequency = system_clock_frequency,
    .timer_get_elapsed = timer_get_elapsed,
    .event_create = event_create,
    .event_destroy = system_event_destroy,
    .event_wait = system_event_wait,
    .event_signal = system_event_signal,
};

const ZelBaseRtcBridgeInterface* minimal_bridge(void) {
  static const ZelBaseRtcBridgeInterface bridge = {ZEL_BASE_RTC_BRIDGE_VERSION, &table};
  return &bridge;
}

unsigned minimal_bridge_waiting(void) {
  return atomic_load(&chunks_out);
}

unsigned minimal_bridge_errors(void) {
  return atomic_load(&errors);
}

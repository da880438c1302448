/* Speech-to-text plug-in for voice rooms: what a host calls and reads.
 *
 * An application attaches a session (ZelRtcSpeechToTextSessionHn) to a room of the host. The host then
 *  1. attaches it, and gives it the service's endpoint and access token (SttSessionInterface);
 *  2. acquires a recognizer for each member it wants transcribed and sets the member id and the client id;
 *  3. puts one audio frame per member every 40 ms (SttRecognizerInterface), with the member's Opus packet or
 *     with nothing;
 *  4. calls Update periodically: requests are started and replies collected only there;
 *  5. pops text packets, reads them (SttPacket) and releases them (PacketRef);
 *  6. releases the recognizers and detaches.
 *
 * Threads. Operations of SttSessionInterface may be called from any thread; they hold the session's mutex, and those
 * that reset a recognizer (slots 5 to 8) wait for its exchange with the service to end, which can take more than a
 * minute. PutAudioFrame takes no lock: calls on one recognizer must not overlap one another, nor a reset, a release or
 * the destruction of that recognizer; they may overlap Update and the application's member operations. PopTextPacket
 * may be called from any thread.
 *
 * The last reference of a packet must be dropped on the thread that drives the session, or under a lock that the host
 * also holds around Update and slots 5 to 8: the envelope's way back into its pool is not guarded.
 * A packet still held when its session is destroyed is reported ("E2021100512"); releasing it later is an error of the
 * host that the library cannot detect.
 *
 * Compiles alone as C11 and as C++. */
#ifndef ZEL_RTC_SPEECH_TO_TEXT_HOST_H
#define ZEL_RTC_SPEECH_TO_TEXT_HOST_H

#include <stdint.h>

#include "zel_base_rtc_bridge.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Text packets ---- */

/** Fields of a text packet: flag and meaning of the value. */
enum {
  SttPacketField_Timestamp = 4,    /**< u64: microseconds from Attach to the collection of the reply */
  SttPacketField_MemberId = 32,    /**< u32, zero-extended: member id at the collection of the reply */
  SttPacketField_TextLength = 512, /**< u32, zero-extended: bytes of the text, at least 1, terminator not counted */
  SttPacketField_Text = 1024 /**< pointer to the NUL-terminated text, valid until the packet is released. The text is
                                  the raw JSON string of the reply: escape sequences stand as written. */
};

enum { STT_PACKET_SLOTS = 9 };

struct PacketRef;

/** Called when the last reference is gone. */
typedef void (*PacketReleaseCallback)(void* context, struct PacketRef* ref);

/** A text packet: nine slots of (flag, value), filled from slot 0 on. Read only for the host. To read a field, look
 * through `field_flags` for its flag; the value stands at the same index. Values of slots whose flag is 0 mean nothing.
 */
typedef struct SttPacket {
  uint32_t field_mask; /**< OR of the flags present; 1572 in a packet from PopTextPacket */
  uint8_t slot_marks;  /**< 0 */
  uint8_t reserved[3];
  uint32_t field_flags[STT_PACKET_SLOTS];  /**< 0 marks a free slot */
  uint64_t field_values[STT_PACKET_SLOTS]; /**< an unsigned integer or a pointer */
  PacketReleaseCallback release_callback;  /**< the library's */
  void* release_context;                   /**< the library's */
} SttPacket;
ZEL_ASSERT_SIZE(SttPacket, 136);
ZEL_ASSERT_OFFSET(SttPacket, field_mask, 0);
ZEL_ASSERT_OFFSET(SttPacket, slot_marks, 4);
ZEL_ASSERT_OFFSET(SttPacket, field_flags, 8);
ZEL_ASSERT_OFFSET(SttPacket, field_values, 48);
ZEL_ASSERT_OFFSET(SttPacket, release_callback, 120);
ZEL_ASSERT_OFFSET(SttPacket, release_context, 128);

/** A bounded ring of pointers. Entries: write_index - read_index; the next one is written at
 * items[write_index % capacity] and read at items[read_index]. All arithmetic is unsigned 32-bit. */
typedef struct PtrQueue {
  void** items;
  uint32_t capacity;
  uint32_t read_index;  /**< always below capacity; when it reaches capacity, capacity is taken off both indices */
  uint32_t write_index; /**< from read_index to read_index + capacity */
  uint32_t padding;
} PtrQueue;
ZEL_ASSERT_SIZE(PtrQueue, 24);
ZEL_ASSERT_OFFSET(PtrQueue, items, 0);
ZEL_ASSERT_OFFSET(PtrQueue, capacity, 8);
ZEL_ASSERT_OFFSET(PtrQueue, read_index, 12);
ZEL_ASSERT_OFFSET(PtrQueue, write_index, 16);

/** The reference-counted envelope of a packet.
 *
 * To release one: if `ref_count` is 0, it is not yours; otherwise take 1 off. When that leaves 0, call
 * release_callback(release_context, ref) if it is not null, then write the ref to owner_queue->items[write_index %
 * capacity] and add 1 to owner_queue->write_index. After that the text, the packet and the envelope belong to the
 * library again. */
typedef struct PacketRef {
  SttPacket* payload;
  uint64_t user_word;    /**< 0 */
  uint32_t user_value;   /**< 0 */
  uint32_t ref_count;    /**< 1 when popped; a host that shares the packet counts here */
  PtrQueue* owner_queue; /**< where the envelope returns to */
  PacketReleaseCallback release_callback;
  void* release_context;
} PacketRef;
ZEL_ASSERT_SIZE(PacketRef, 48);
ZEL_ASSERT_OFFSET(PacketRef, payload, 0);
ZEL_ASSERT_OFFSET(PacketRef, user_word, 8);
ZEL_ASSERT_OFFSET(PacketRef, user_value, 16);
ZEL_ASSERT_OFFSET(PacketRef, ref_count, 20);
ZEL_ASSERT_OFFSET(PacketRef, owner_queue, 24);
ZEL_ASSERT_OFFSET(PacketRef, release_callback, 32);
ZEL_ASSERT_OFFSET(PacketRef, release_context, 40);

/* ---- Recognizers ---- */

/** One member's recognizer; opaque. */
typedef struct SttRecognizer SttRecognizer;

/** One frame of a member's voice: 640 samples at 16 kHz, mono (40 ms). Read only during the call. */
typedef struct SttAudioFrame {
  const uint8_t* data; /**< the frame's Opus packet; null when the member was silent */
  uint32_t size;       /**< bytes of the packet, at most 256: a longer one is lost ("E2022110200"), its time counts */
} SttAudioFrame;
ZEL_ASSERT_SIZE(SttAudioFrame, 16);
ZEL_ASSERT_OFFSET(SttAudioFrame, data, 0);
ZEL_ASSERT_OFFSET(SttAudioFrame, size, 8);

/** What the host calls on a recognizer; the first argument is the handle's instance. */
typedef struct SttRecognizerInterface {
  /* 0: id that the member's packets carry. 1; 0 for a null instance. Call it where Update cannot overlap. */
  uint32_t (*SetMemberId)(SttRecognizer* instance, uint32_t member_id);
  /* 1: the member's client id: `size` bytes, at most 512, the last one a NUL; or null to clear it. The bytes are copied
   * to the front of the id. 1 when stored. Call it where Update and the application's member operations
   * cannot overlap. */
  uint32_t (*SetClientId)(SttRecognizer* instance, const uint8_t* bytes, uint32_t size);
  /* 2: one frame every 40 ms. 1 when taken; 0 when the member is disabled. Seven frames without audio in a row, or 60 s
   * of audio, end the utterance; less than 200 ms of audio is dropped. An utterance may have 81920 bytes as an Ogg
   * stream; the service never sees a longer one ("E2022121329"). At most eight finished utterances wait; a ninth is
   * dropped with a warning. Allocates nothing, takes no lock, never blocks. */
  uint32_t (*PutAudioFrame)(SttRecognizer* instance, const SttAudioFrame* frame);
  /* 3: the oldest waiting text packet, or null. The caller owns it until it releases it; max_queueing_messages packets
   * may be waiting or held, further texts are lost with a report ("E2022110404"). Waits at most for a delivery or
   * a reset of the queue in progress. */
  PacketRef* (*PopTextPacket)(SttRecognizer* instance);
} SttRecognizerInterface;
ZEL_ASSERT_SIZE(SttRecognizerInterface, 32);
ZEL_ASSERT_OFFSET(SttRecognizerInterface, SetMemberId, 0);
ZEL_ASSERT_OFFSET(SttRecognizerInterface, SetClientId, 8);
ZEL_ASSERT_OFFSET(SttRecognizerInterface, PutAudioFrame, 16);
ZEL_ASSERT_OFFSET(SttRecognizerInterface, PopTextPacket, 24);

/** What a recognizer handle points to. */
typedef struct SttRecognizerPair {
  const SttRecognizerInterface* interface_table;
  SttRecognizer* instance;
} SttRecognizerPair;
ZEL_ASSERT_SIZE(SttRecognizerPair, 16);
ZEL_ASSERT_OFFSET(SttRecognizerPair, interface_table, 0);
ZEL_ASSERT_OFFSET(SttRecognizerPair, instance, 8);

/** A recognizer as the host receives it; valid until it is released to its session. */
typedef SttRecognizerPair* SttRecognizerHn;

/* ---- Sessions ---- */

/** The mutable part of a session; opaque. */
typedef struct SttSessionBody SttSessionBody;

/** What the host calls on a session; the first argument is the session's body. Every operation refuses a null body. */
typedef struct SttSessionInterface {
  /* 0: moves recognition forward: starts the request of each active member's next utterance, collects replies. Call it
   * every 40 ms or so. Does not wait for the service, but for other operations of the session. */
  void (*Update)(SttSessionBody* body);
  /* 1: 1 when the session became attached, 0 when it already was. Attaching is time zero of the packets' time
   * stamps. */
  uint32_t (*Attach)(SttSessionBody* body);
  /* 2: 1 when an attachment was removed, 0 when there was none. Recognizers stay as they are. */
  uint32_t (*Detach)(SttSessionBody* body);
  /* 3: 1 while attached. */
  uint32_t (*IsAttached)(SttSessionBody* body);
  /* 4: a free recognizer, or null. It comes with member id 0xFFFFFFFF, language 0 and the enabled flag of the member
   * that had it before; the host sets member id and client id next. */
  SttRecognizerHn (*AcquireRecognizer)(SttSessionBody* body);
  /* 5: gives it back: 1, or 0 when it is not active in this session. Waits for its exchange in flight, whose text is
   * lost, as are utterances and texts that wait. */
  uint32_t (*ReleaseRecognizer)(SttSessionBody* body, SttRecognizerHn recognizer);
  /* 6: gives all back, as slot 5 does; 1. */
  uint32_t (*ReleaseAllRecognizers)(SttSessionBody* body);
  /* 7, 8: drop everything that the active recognizers have collected; members and settings stay. Two names of one
   * operation. */
  void (*ResetRecognizersA)(SttSessionBody* body);
  void (*ResetRecognizersB)(SttSessionBody* body);
  /* 9: access token for the "Authorization" header, from each recognizer's next request on: at most 504 characters,
   * NUL-terminated; `length` must be above 0 and is not used otherwise. 1 when stored. */
  uint32_t (*SetAccessToken)(SttSessionBody* body, const char* token, int32_t length);
  /* 10: the service's URL, http or https, to which "?language=...&speaker=..." is appended; together at most 1023
   * bytes. NUL-terminated; `length` must be above 0 and is not used otherwise. 1 when stored. */
  uint32_t (*SetEndpointUrl)(SttSessionBody* body, const char* url, int32_t length);
} SttSessionInterface;
ZEL_ASSERT_SIZE(SttSessionInterface, 88);
ZEL_ASSERT_OFFSET(SttSessionInterface, Update, 0);
ZEL_ASSERT_OFFSET(SttSessionInterface, Attach, 8);
ZEL_ASSERT_OFFSET(SttSessionInterface, Detach, 16);
ZEL_ASSERT_OFFSET(SttSessionInterface, IsAttached, 24);
ZEL_ASSERT_OFFSET(SttSessionInterface, AcquireRecognizer, 32);
ZEL_ASSERT_OFFSET(SttSessionInterface, ReleaseRecognizer, 40);
ZEL_ASSERT_OFFSET(SttSessionInterface, ReleaseAllRecognizers, 48);
ZEL_ASSERT_OFFSET(SttSessionInterface, ResetRecognizersA, 56);
ZEL_ASSERT_OFFSET(SttSessionInterface, ResetRecognizersB, 64);
ZEL_ASSERT_OFFSET(SttSessionInterface, SetAccessToken, 72);
ZEL_ASSERT_OFFSET(SttSessionInterface, SetEndpointUrl, 80);

struct SttSession;

/** Link of the library's list of sessions; the library's alone. */
typedef struct SttRegistryLink {
  struct SttSession* item;
  struct SttRegistryLink* next;
} SttRegistryLink;
ZEL_ASSERT_SIZE(SttRegistryLink, 16);

/** The record behind a ZelRtcSpeechToTextSessionHn. A host reads the second and third field. */
typedef struct SttSession {
  void* own_work;
  const SttSessionInterface* interface_table;
  SttSessionBody* body;
  SttRegistryLink registry_link;
} SttSession;
ZEL_ASSERT_SIZE(SttSession, 40);
ZEL_ASSERT_OFFSET(SttSession, own_work, 0);
ZEL_ASSERT_OFFSET(SttSession, interface_table, 8);
ZEL_ASSERT_OFFSET(SttSession, body, 16);
ZEL_ASSERT_OFFSET(SttSession, registry_link, 24);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_RTC_SPEECH_TO_TEXT_HOST_H */

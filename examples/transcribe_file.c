/* A complete user of the speech-to-text plug-in in plain C: an application that owns library and session, and a host
 * that lends a recognizer to one member, feeds it the packets of an Ogg Opus file and prints the text.
 *
 *   opusenc --framesize 40 --bitrate 16 --downmix-mono speech.wav speech.opus      (Debian package opus-tools)
 *   zel-speechd &                                                                  (says where it listens)
 *   zel-example speech.opus http://127.0.0.1:8080/v1/recognize [TOKEN]
 *
 * The plug-in's services come from minimal_bridge.c. Exit status: 0, or 1 when anything went wrong, or 2 for wrong
 * arguments. */
#include "system.h"
/* Behind it: */
#include <ogg/ogg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "minimal_bridge.h"
#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

static const uint32_t kMemberId = 1;
static const char kClientId[] = "speaker";

static int fail(const char* what, const char* why) {
  fprintf(stderr, "zel-example: %s: %s\n", what, why);
  return 0;
}

/* ---- The file: packets of an Ogg Opus stream (RFC 3533, RFC 7845) ---- */

typedef struct OpusFile {
  const char* name;
  FILE* file;
  ogg_sync_state sync;
  ogg_stream_state stream;
  int begun;    /* `stream` is initialized */
  int complete; /* its last packet has been read */
} OpusFile;

enum { kEnd = 0, kPacket = 1, kDamaged = -1 };

/* The next packet, valid until the next call. */
static int read_packet(OpusFile* opus, ogg_packet* packet) {
  for (;;) {
    const int found = opus->begun ? ogg_stream_packetout(&opus->stream, packet) : 0;
    if (found != 0) {
      opus->complete = found > 0 && packet->e_o_s;
      return found > 0 ? kPacket : kDamaged;
    }
    ogg_page page;
    const int paged = ogg_sync_pageout(&opus->sync, &page);
    if (paged < 0) return kDamaged;
    if (paged > 0) {
      if (!opus->begun) opus->begun = ogg_stream_init(&opus->stream, ogg_page_serialno(&page)) == 0;
      if (ogg_stream_pagein(&opus->stream, &page) != 0) return kDamaged;
      continue;
    }
    char* buffer = ogg_sync_buffer(&opus->sync, 4096);
    const size_t count = buffer != NULL ? fread(buffer, 1, 4096, opus->file) : 0;
    if (count == 0) return opus->complete ? kEnd : kDamaged;
    ogg_sync_wrote(&opus->sync, (long)count);
  }
}

/* Opens the file and passes over its two header packets; false after saying what is wrong. */
static int open_file(OpusFile* opus, const char* name) {
  *opus = (OpusFile){.name = name, .file = fopen(name, "rb")};
  if (opus->file == NULL) return fail(name, "cannot be opened");
  ogg_sync_init(&opus->sync);
  ogg_packet packet;
  if (read_packet(opus, &packet) != kPacket || packet.bytes < 19 || memcmp(packet.packet, "OpusHead", 8) != 0) {
    return fail(name, "is no Ogg Opus file");
  }
  if (packet.packet[9] != 1) return fail(name, "is not mono; encode it with --downmix-mono");
  if (read_packet(opus, &packet) != kPacket || packet.bytes < 8 || memcmp(packet.packet, "OpusTags", 8) != 0) {
    return fail(name, "is no Ogg Opus file: its second header is missing");
  }
  return 1;
}

static void close_file(OpusFile* opus) {
  if (opus->file == NULL) return;
  if (opus->begun) ogg_stream_clear(&opus->stream);
  ogg_sync_clear(&opus->sync);
  fclose(opus->file);
}

/* Duration of an Opus packet in units of 2.5 ms (RFC 6716, sections 3.1 and 3.2). */
static int duration_of(const ogg_packet* packet) {
  static const uint8_t kFrame[32] = {4, 8, 16, 24, 4, 8, 16, 24, 4, 8, 16, 24, 4, 8, 4, 8,
                                     1, 2, 4,  8,  1, 2, 4,  8,  1, 2, 4,  8,  1, 2, 4, 8};
  if (packet->bytes == 0) return 0;
  const int code = packet->packet[0] & 3;
  const int many = packet->bytes > 1 ? packet->packet[1] & 63 : 0;
  return kFrame[packet->packet[0] >> 3] * (code == 0 ? 1 : code < 3 ? 2 : many);
}

/* ---- The host: one attached session with one member ---- */

typedef struct Host {
  const SttSession* session;
  SttRecognizerHn recognizer;
} Host;

static void print_text(const SttPacket* packet) {
  const char* text = "";
  uint64_t member = 0, microseconds = 0;
  for (int slot = 0; slot < STT_PACKET_SLOTS; ++slot) {
    const uint64_t value = packet->field_values[slot];
    if (packet->field_flags[slot] == SttPacketField_Text) text = (const char*)(uintptr_t)value;
    if (packet->field_flags[slot] == SttPacketField_MemberId) member = value;
    if (packet->field_flags[slot] == SttPacketField_Timestamp) microseconds = value;
  }
  printf("[%8.3f s] member %u: %s\n", (double)microseconds / 1e6, (unsigned)member, text);
  fflush(stdout);
}

static void release_packet(PacketRef* ref) {
  if (ref->ref_count == 0 || --ref->ref_count > 0) return;
  if (ref->release_callback != NULL) ref->release_callback(ref->release_context, ref);
  PtrQueue* queue = ref->owner_queue;
  queue->items[queue->write_index++ % queue->capacity] = ref;
}

/* What a room does every 40 ms: one update of the session, then the texts of every member. */
static void update(const Host* host) {
  host->session->interface_table->Update(host->session->body);
  const SttRecognizerPair* member = host->recognizer;
  for (PacketRef* ref; (ref = member->interface_table->PopTextPacket(member->instance)) != NULL; release_packet(ref)) {
    print_text(ref->payload);
  }
}

/* One frame of the member's voice, null for 40 ms of silence. A room would go on at the pace of speech; here time
 * stands still while an utterance waits for its answer, so that none of a long file is lost to a slow service. */
static void put_frame(const Host* host, const uint8_t* data, uint32_t size) {
  const SttAudioFrame frame = {data, size};
  host->recognizer->interface_table->PutAudioFrame(host->recognizer->instance, &frame);
  for (update(host); minimal_bridge_waiting() > 0; update(host))
    system_sleep(5);
}

static void end_utterance(const Host* host) {
  for (int i = 0; i < 7; ++i)
    put_frame(host, NULL, 0);
}

/* Feeds the whole file; false when it is not what the plug-in takes. A recording hardly ever tells where its speaker
 * pauses, as a room's voice detection does, so an utterance ends before it can exceed the plug-in's 60 s or 81920
 * bytes. */
static int feed_file(const Host* host, OpusFile* opus) {
  enum { kMaxFrames = 750, kMaxBytes = 60000, kFrameDuration = 16, kMaxPacket = 256, kDiscontinued = 2 };
  int frames = 0;
  long bytes = 0;
  ogg_packet packet;
  int result;
  while ((result = read_packet(opus, &packet)) == kPacket) {
    if (packet.e_o_s && duration_of(&packet) < kFrameDuration) continue; /* encoders end with what is left */
    if (duration_of(&packet) != kFrameDuration) {
      return fail(opus->name, "has packets of another length than 40 ms; encode it with --framesize 40");
    }
    if (packet.bytes > kMaxPacket) {
      return fail(opus->name, "has packets of more than 256 bytes; encode it with --bitrate 16");
    }
    const int silent = packet.bytes <= kDiscontinued; /* the encoder had nothing to say */
    put_frame(host, silent ? NULL : packet.packet, silent ? 0 : (uint32_t)packet.bytes);
    bytes += packet.bytes;
    if (++frames < kMaxFrames && bytes < kMaxBytes) continue;
    end_utterance(host);
    frames = 0;
    bytes = 0;
  }
  end_utterance(host);
  return result == kEnd ? 1 : fail(opus->name, "is damaged or cut off: text is missing");
}

static int text_length(const char* text) {
  return (int)strlen(text);
}

/* Brings the member into the room and out again. */
static int hold_room(ZelRtcSpeechToTextSessionHn session, OpusFile* opus, const char* url, const char* token) {
  const SttSessionInterface* interface_table = session->interface_table;
  Host host = {session, NULL};
  interface_table->Attach(session->body);
  int done = 0;
  if (interface_table->SetEndpointUrl(session->body, url, text_length(url)) == 1 &&
      (token == NULL || interface_table->SetAccessToken(session->body, token, text_length(token)) == 1)) {
    host.recognizer = interface_table->AcquireRecognizer(session->body);
  }
  if (host.recognizer != NULL) {
    const SttRecognizerPair* member = host.recognizer;
    member->interface_table->SetMemberId(member->instance, kMemberId);
    member->interface_table->SetClientId(member->instance, (const uint8_t*)kClientId, sizeof kClientId);
    zelRtcSpeechToTextSession_SetLanguage(session, kClientId, ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US);
    done = feed_file(&host, opus);
    interface_table->ReleaseRecognizer(session->body, host.recognizer);
  }
  interface_table->Detach(session->body);
  return done;
}

/* ---- The application: library, session, work areas. The plug-in has reported whatever fails here. ---- */

static int with_session(OpusFile* opus, const char* url, const char* token) {
  ZelRtcSpeechToTextSessionConfig config;
  zelRtcSpeechToTextSession_SetDefaultConfig(&config);
  config.max_identifiable_members = 1;
  const int32_t size = zelRtcSpeechToTextSession_CalculateWorkSize(&config);
  void* work = size > 0 ? malloc((size_t)size) : NULL;
  if (work == NULL) return fail("session", "no work area");
  int done = 0;
  ZelRtcSpeechToTextSessionHn session = zelRtcSpeechToTextSession_Create(&config, work, size);
  if (session != NULL) {
    done = hold_room(session, opus, url, token);
    zelRtcSpeechToTextSession_Destroy(session);
  }
  free(work);
  return done;
}

static int with_library(OpusFile* opus, const char* url, const char* token) {
  zelRtcSpeechToText_SetBaseRtcBridgeInterface(minimal_bridge());
  const int32_t size = zelRtcSpeechToText_CalculateWorkSize(NULL);
  void* work = size > 0 ? malloc((size_t)size) : NULL;
  if (work == NULL) return fail("library", "no work area");
  int done = 0;
  if (zelRtcSpeechToText_Initialize(NULL, work, size) == 1) {
    done = with_session(opus, url, token);
    zelRtcSpeechToText_Finalize();
  }
  free(work);
  return done;
}

int main(int argc, char** argv) {
  if (argc != 3 && argc != 4) {
    fprintf(stderr, "usage: zel-example FILE URL [TOKEN]\n");
    return 2;
  }
  OpusFile opus;
  const int done = open_file(&opus, argv[1]) && with_library(&opus, argv[2], argc > 3 ? argv[3] : NULL);
  close_file(&opus);
  return done && minimal_bridge_errors() == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* Speech-to-text plug-in for voice rooms: what an application calls.
 *
 * Conventions:
 *  1. Text is NUL-terminated; client ids and texts are compared and carried byte for byte (UTF-8 passes unchanged).
 *  2. Sizes are bytes. Work-size operations return -1 on failure.
 *  3. A truth value is a u32: 0 false, anything else true. "Succeeded" is 1.
 *  4. Errors are reported through the installed bridge (zel_base_rtc_bridge.h) with an identifier: "E" or "W" and ten
 *     digits. The operation then returns its failure value and has changed nothing. Before a bridge is installed, calls
 *     that need one return their failure value in silence.
 *  5. A null session or client id is refused with a report, a null configuration to be filled or a null bridge
 *     record is ignored, and a null configuration to be read stands for the defaults.
 *  6. The application owns the work areas it supplies and keeps them untouched until the object built in them is
 *     destroyed. Where it supplies none, the area comes from the functions it registered, and goes back to them.
 *  7. Library functions (zelRtcSpeechToText_*) must not overlap one another or any session call. Member operations of a
 *     session may be called from any thread and overlap what the host does with it, except while the host gives a
 *     member its client id: set up a member once the host has it in the room.
 *
 * Order: install the bridge; register allocation functions or provide work areas; initialize; create sessions, attach
 * them through the host, set members' languages, detach, destroy; finalize.
 *
 * Compiles alone as C11 and as C++. */
#ifndef ZEL_RTC_SPEECH_TO_TEXT_H
#define ZEL_RTC_SPEECH_TO_TEXT_H

#include <stdint.h>

#include "zel_base_rtc_bridge.h"

#if defined(_WIN32)
#if defined(ZEL_RTC_SPEECH_TO_TEXT_BUILD)
#define ZEL_RTC_SPEECH_TO_TEXT_API __declspec(dllexport)
#else
#define ZEL_RTC_SPEECH_TO_TEXT_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define ZEL_RTC_SPEECH_TO_TEXT_API __attribute__((visibility("default")))
#else
#define ZEL_RTC_SPEECH_TO_TEXT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Version of this header; the library refuses a configuration that carries another one. */
#define ZEL_RTC_SPEECH_TO_TEXT_VERSION "0.1.20"

/** Configuration of the library. */
typedef struct ZelRtcSpeechToTextConfig {
  const char* version; /**< header version that the application was built with; must equal "0.1.20" */
  uint32_t reserved;   /**< 16 by default, not read */
} ZelRtcSpeechToTextConfig;
ZEL_ASSERT_SIZE(ZelRtcSpeechToTextConfig, 16);
ZEL_ASSERT_OFFSET(ZelRtcSpeechToTextConfig, version, 0);
ZEL_ASSERT_OFFSET(ZelRtcSpeechToTextConfig, reserved, 8);

/** Configuration of one session. */
typedef struct ZelRtcSpeechToTextSessionConfig {
  uint16_t max_queueing_messages;    /**< texts per member that may be waiting or in the host's hands; 16, at least 4 */
  uint32_t max_text_message_size;    /**< bytes of one text, terminator included; 1200, at least 1 */
  uint32_t reserved;                 /**< 20000 by default, not read */
  uint32_t max_identifiable_members; /**< members recognized at the same time; 16, at least 1. Each costs about 1 MB of
                                          work area and one thread. Counted as a signed number: 2^31 or more gives a
                                          session without recognizers. */
} ZelRtcSpeechToTextSessionConfig;
ZEL_ASSERT_SIZE(ZelRtcSpeechToTextSessionConfig, 16);
ZEL_ASSERT_OFFSET(ZelRtcSpeechToTextSessionConfig, max_queueing_messages, 0);
ZEL_ASSERT_OFFSET(ZelRtcSpeechToTextSessionConfig, max_text_message_size, 4);
ZEL_ASSERT_OFFSET(ZelRtcSpeechToTextSessionConfig, reserved, 8);
ZEL_ASSERT_OFFSET(ZelRtcSpeechToTextSessionConfig, max_identifiable_members, 12);

/** Language of a member, sent to the service as the text given here. */
typedef uint32_t ZelRtcSpeechToTextLanguage;
enum {
  ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_JA_JP = 0, /**< "ja-JP", the language of a new member */
  ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_EN_US = 1, /**< "en-US" */
  ZEL_RTC_SPEECH_TO_TEXT_LANGUAGE_ZH_CN = 2  /**< "zh-CN" */
};

/** A session; zel_rtc_speech_to_text_host.h describes the record for hosts. */
typedef struct SttSession* ZelRtcSpeechToTextSessionHn;

/* ---- Library ---- */

/** Installs the host's services; the first call into the library; must not overlap any other. The record is copied, the
 * table is not: it must stay valid and unchanged. Installing again replaces the table for every later service call of
 * every object. A record of another version is reported ("E2022111826") and installed all the same. */
ZEL_RTC_SPEECH_TO_TEXT_API void zelRtcSpeechToText_SetBaseRtcBridgeInterface(
    const ZelBaseRtcBridgeInterface* bridge_interface);

/** Fills in the defaults. Needs no bridge. */
ZEL_RTC_SPEECH_TO_TEXT_API void zelRtcSpeechToText_SetDefaultConfig(ZelRtcSpeechToTextConfig* config);

/** Bytes of work area that the library needs. `config`: null for the defaults. -1 for a foreign version
 * ("E2022101100"). */
ZEL_RTC_SPEECH_TO_TEXT_API int32_t zelRtcSpeechToText_CalculateWorkSize(const ZelRtcSpeechToTextConfig* config);

/** Initializes the library in `work`, or, when `work` is null or `work_size` 0, in memory from the registered
 * allocation function. `config`: null for the defaults. 1 on success. 0 when it is initialized already ("E2022101101"),
 * for a foreign version ("E2022101102"), an area that is too small ("E2022101106"), no allocation functions
 * ("E2022101104") or no memory from them ("E2022101105"), or when the host refused a mutex ("E2022111473",
 * "E2022111476"). */
ZEL_RTC_SPEECH_TO_TEXT_API uint32_t zelRtcSpeechToText_Initialize(const ZelRtcSpeechToTextConfig* config, void* work,
                                                                  int32_t work_size);

/** Destroys the sessions that are left and finalizes the library. While the host still has a session attached, that
 * session refuses ("E2022102623") and the library stays initialized with it; call again once it is detached. Reports
 * "E2022101103" when the library is not initialized. May wait for exchanges in flight. */
ZEL_RTC_SPEECH_TO_TEXT_API void zelRtcSpeechToText_Finalize(void);

/** 1 between a successful initialization and finalization. Needs no bridge. */
ZEL_RTC_SPEECH_TO_TEXT_API uint32_t zelRtcSpeechToText_IsInitialized(void);

/** A constant line of text, "ZEL Rtc SpeechToText/PCx64 Ver.0.1.20 Build:" with date and time of the build and a line
 * feed. Needs no bridge. */
ZEL_RTC_SPEECH_TO_TEXT_API const char* zelRtcSpeechToText_GetLibraryVersionString(void);

/** Register the functions that provide and take back work areas the application does not supply itself. Needs only the
 * bridge. `object` is handed to the function as it is. */
ZEL_RTC_SPEECH_TO_TEXT_API void zelRtcSpeechToText_SetUserMallocFunction(ZelUserMallocFunction function, void* object);
ZEL_RTC_SPEECH_TO_TEXT_API void zelRtcSpeechToText_SetUserFreeFunction(ZelUserFreeFunction function, void* object);

/* ---- Sessions ---- */

/** Fills in the defaults. Needs no bridge. */
ZEL_RTC_SPEECH_TO_TEXT_API void zelRtcSpeechToTextSession_SetDefaultConfig(ZelRtcSpeechToTextSessionConfig* config);

/** Bytes of work area that a session needs. `config`: null for the defaults. -1 after reporting every value that is too
 * small ("E2022102522", "E2022102523", "E2022102525"), or when the size does not fit an i32. */
ZEL_RTC_SPEECH_TO_TEXT_API int32_t
zelRtcSpeechToTextSession_CalculateWorkSize(const ZelRtcSpeechToTextSessionConfig* config);

/** Creates a session with all its recognizers and their threads, in `work` or, when `work` is null or `work_size` 0, in
 * memory from the registered allocation function. `config`: null for the defaults. Null when the library is not
 * initialized ("E2022102100"), for a refused configuration, an area that is too small ("E2022102103"), no allocation
 * functions ("E2022102101") or no memory from them ("E2022102102"), or when a part of a recognizer could not be made
 * (the part reports; records, lists and texts, mutexes and ring buffers that the host refuses have no report). */
ZEL_RTC_SPEECH_TO_TEXT_API ZelRtcSpeechToTextSessionHn
zelRtcSpeechToTextSession_Create(const ZelRtcSpeechToTextSessionConfig* config, void* work, int32_t work_size);

/** Destroys a session: 1, or 0 while a host has it attached ("E2022102623"; nothing changes). Waits for exchanges in
 * flight. No other call on this session may overlap. */
ZEL_RTC_SPEECH_TO_TEXT_API uint32_t zelRtcSpeechToTextSession_Destroy(ZelRtcSpeechToTextSessionHn session);

/* Member operations find the member by the client id that the host gave it; only members that the host has active are
 * found, the one acquired first when several carry the same id. Each waits while the host works on the session. Null is
 * reported under identifiers of each operation's own, with code -2. */

/** 0 disables recognition of the member: the utterance under way is dropped at the host's next update, finished ones
 * are still posted. Any other value enables it and is stored as given. 1 when found, otherwise 0 ("W2022102700"). */
ZEL_RTC_SPEECH_TO_TEXT_API uint32_t zelRtcSpeechToTextSession_EnableMember(ZelRtcSpeechToTextSessionHn session,
                                                                           const char* client_id, uint32_t enabled);

/** The value that was stored last, 0 when not found ("W2022110822"). A recognizer starts with 1 and passes its value on
 * to its next member. */
ZEL_RTC_SPEECH_TO_TEXT_API uint32_t zelRtcSpeechToTextSession_IsEnabledMember(ZelRtcSpeechToTextSessionHn session,
                                                                              const char* client_id);

/** The language of the member's next utterance to be posted. 1 when found and stored, otherwise 0 ("W2022102702" not
 * found, "E2022111425" no such language). */
ZEL_RTC_SPEECH_TO_TEXT_API uint32_t zelRtcSpeechToTextSession_SetLanguage(ZelRtcSpeechToTextSessionHn session,
                                                                          const char* client_id,
                                                                          ZelRtcSpeechToTextLanguage language);

/** The member's language, or -1 when not found ("W2022102703"). */
ZEL_RTC_SPEECH_TO_TEXT_API int32_t zelRtcSpeechToTextSession_GetLanguage(ZelRtcSpeechToTextSessionHn session,
                                                                         const char* client_id);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZEL_RTC_SPEECH_TO_TEXT_H */

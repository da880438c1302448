/* A bridge of the speech-to-text plug-in: every service it asks of its host, in the simplest form that keeps the
 * promises of zel_base_rtc_bridge.h. Everything may be called from any thread. */
#ifndef MINIMAL_BRIDGE_H
#define MINIMAL_BRIDGE_H

#include "zel_base_rtc_bridge.h"

/** For zelRtcSpeechToText_SetBaseRtcBridgeInterface; lives as long as the program. */
const ZelBaseRtcBridgeInterface* minimal_bridge(void);

/** Chunks that are out of all ring buffers. While the plug-in's audio operations are not running, each is a finished
 * utterance that waits for its answer. */
unsigned minimal_bridge_waiting(void);

/** Reports of level "error" so far; all reports go to standard error. */
unsigned minimal_bridge_errors(void);

#endif /* MINIMAL_BRIDGE_H */

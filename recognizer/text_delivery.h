// Recognized text on its way to the host.
//
// A text block belongs to exactly one of the stack of free blocks or one packet that is out (queued, or in the host's
// hands). Thread rule: delivery runs on the update thread, PopTextPacket and the host's releases on the host's threads;
// the recognizer's mutex serializes them, all but the way back of an envelope whose last reference the host drops.
// Invariant: at most as many packets are out as the queue has entries.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

// Turns the reply of a request that has succeeded into a queued text packet. A text that cannot be delivered is lost
// with a report (E2022110403 to E2022110406), an empty one without.
void zelSttRecognizer_DeliverText(SttRecognizer* recognizer);

// Slot 3 of the recognizer interface: the oldest waiting packet, or null. Null instance: E2022111525.
PacketRef* zelSttRecognizer_PopTextPacket(SttRecognizer* recognizer);

// Release callback of the packets: returns the text block. Null instance E2022111435, null packet E2022111436.
void zelSttRecognizer_ReleaseText(void* recognizer, PacketRef* packet);

// Releases the packets that the host has not taken.
void zelSttRecognizer_ReleaseQueuedTexts(SttRecognizer* recognizer);

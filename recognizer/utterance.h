// The audio path of a recognizer: frames in, utterances cut at pauses, finished streams into slots.
//
// Thread rule: PutAudioFrame runs on the host's audio thread, one call at a time per recognizer; it takes no lock and
// never blocks. It may overlap the recognizer's update: they meet at the slots' byte counts and the enabled flag, which
// are atomic, and at the ring buffer, which is the host's. The other functions belong to the audio path, or to
// creation, reset and the update of a disabled member, when PutAudioFrame changes nothing.
#pragma once

#include "zel_rtc_speech_to_text_host.h"

// Slot 2 of the recognizer interface. 1 when the frame was taken; 0 for a disabled member, a null instance
// (E2022111441) or a null frame (E2022111442).
uint32_t zelSttRecognizer_PutAudioFrame(SttRecognizer* recognizer, const SttAudioFrame* frame);

// Ends the current utterance: 1 when its stream was put into a slot; 0 when there was no audio, when it was discarded
// (too short, no slot free, no complete stream), or for null (E2022111437).
uint32_t zelSttRecognizer_EndUtterance(SttRecognizer* recognizer);

// Begins a stream: its header pages go into lane 1. 1; 0 when they did not fit, or for null (E2023020739).
uint32_t zelSttRecognizer_BeginStream(SttRecognizer* recognizer);

// Gives the bytes of lane 1, which holds `size`, back and begins a new stream; the current utterance is empty then.
void zelSttRecognizer_DiscardStream(SttRecognizer* recognizer, uint32_t size);

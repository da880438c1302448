// Opus speech and its decoding, with the codec's own libraries.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// A recording of the test data as Opus packets: 16 kHz mono, 40 ms each.
std::vector<std::string> encode_recording(const std::string& file);
// The packets' sound at 48 kHz, by the codec alone.
std::vector<float> decode_packets(const std::vector<std::string>& packets);
// The stream's sound at 48 kHz; fails the test when an Ogg Opus reader has anything to say against it.
std::vector<float> decode_stream(std::string_view bytes);

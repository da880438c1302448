// An independent reader of Ogg Opus streams (RFC 3533, RFC 7845), to judge what the plug-in writes.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Fails the test unless `bytes` are exactly one stream of 16 kHz mono Opus with the serial number 0 that carries
// `packets` (640 samples each): headers on pages of their own, pages numbered from 0, checksums and granule positions
// right, the end of the stream marked on the last page and only there.
void ExpectOpusStream(std::string_view bytes, const std::vector<std::string>& packets);

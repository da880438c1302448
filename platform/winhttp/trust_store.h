// The certificates that servers are verified against. Loading them costs tens of milliseconds of CPU: they are loaded
// by the first TLS handshake of the process and shared, read-only, by all later ones. A handshake that meets a shortage
// of memory or descriptors on the way fails; one for which not everything can be loaded makes do with the rest; and the
// next one loads them again.
#pragma once

#include "transfer.h"

// Makes a transfer's TLS connections (server and proxy) use the shared certificates, with verification on, and end at
// its deadlines whatever handshake messages keep coming. False when libcurl refuses. With another TLS library than the
// OpenSSL this code runs on, libcurl loads the certificates itself, and deadlines wait until those messages end.
bool zelHttpTrustStore_Use(Transfer* transfer);

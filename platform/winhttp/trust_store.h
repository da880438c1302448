// The certificates that servers are verified against. Loading them costs tens of milliseconds of CPU: they are loaded
// by the first TLS handshake of the process and shared, read-only, by all later ones. A handshake that meets a shortage
// of memory or descriptors on the way fails, and the next one loads them.
#pragma once

#include <curl/curl.h>

// Makes an easy handle's TLS connections (server and proxy) use the shared certificates, with verification on. False
// when libcurl refuses. With another TLS library than the OpenSSL this code runs on, libcurl loads the certificates
// itself.
bool zelHttpTrustStore_Use(CURL* easy);

// The connection between a test on Windows and kit-server: requests and answers are packed texts (http_script.h), each
// behind its length. One connection is one server; it ends with the connection.
//
//   serve <scripts>  ->  <port>          release   ->  (nothing)
//   requests         ->  <requests...>   authority ->  <the authority's certificate, DER>
//
// Thread rule: one thread at a time per connection.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#ifdef _WIN32
#include <winsock2.h>
using ControlSocket = SOCKET;
#else
#include <sys/socket.h>
using ControlSocket = int;
#endif

namespace kit {

// False when the other side has gone.
bool SendTexts(ControlSocket socket, const std::vector<std::string>& texts);
// Nothing when the other side has gone.
std::optional<std::vector<std::string>> ReceiveTexts(ControlSocket socket);

}  // namespace kit

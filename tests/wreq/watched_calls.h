// The executor's calls of the platform and of the heap, counted, and failing on demand. watched_names.h and the
// linker lead them here.
//
// Thread rule: each thread has its own watch.
#pragma once

#include <cstdint>
#include <string>

struct Holdings {
  int handles = 0;        // WinHTTP handles opened and not closed
  int proxy_strings = 0;  // given by the platform and not released with GlobalFree
  int blocks = 0;         // heap blocks allocated and not freed
  bool operator==(const Holdings&) const = default;
};

// What makes calls fail or answer otherwise.
struct Orders {
  const char* failing_call = nullptr;  // operation of the platform, without "WinHttp"
  int failing_count = 1;               // its n-th call fails
  std::uint32_t error = 0;             // and leaves this last error
  int failing_allocation = 0;          // the n-th allocation fails; 0: none, or it has failed
  std::string proxy = {};  // the user's proxy list, "{port}" the server's; a bypass list and a script come along
};

struct Watch {
  Orders orders;
  Holdings held = {};
};

// From now on `watch` follows the calls of the calling thread; null: nothing does.
void SetWatch(Watch* watch);

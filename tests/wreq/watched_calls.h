// The executor's calls of the heap and those that give it something of the platform's: counted, and scripted on demand.
// CMakeLists.txt leads them here.
//
// Thread rule: each thread has its own watch.
#pragma once

#include <string>

struct Holdings {
  int handles = 0;        // WinHTTP handles opened and not closed
  int proxy_strings = 0;  // given by the platform and not released with GlobalFree
  int blocks = 0;         // heap blocks allocated and not freed
  bool operator==(const Holdings&) const = default;
};

struct Watch {
  int failing_allocation = 0;  // the n-th one fails; 0: none, or it has failed
  std::string proxy = {};      // the user's proxy list, if not the platform's; a bypass list and a script come along
  Holdings held = {};
};

// From now on `watch` follows the calls of the calling thread; null: nothing does. Returns what did so far.
Watch* SetWatch(Watch* watch);

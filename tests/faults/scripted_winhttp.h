// A platform of the test's own in the place of WinHTTP: it notes every call with its arguments, and fails when told to.
//
// Thread rule: one thread.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

struct ScriptedWinHttp {
  // Scripted.
  bool named_proxy = true;  // whether the user has proxies
  bool probe_succeeds = false;
  int fail_at = -1;         // number of the failing call, as they are noted, without the notes of other kinds
  std::uint32_t error = 0;  // and its number
  std::vector<std::pair<std::uint32_t, std::string>> body;  // announced bytes, and those that are read

  // Noted: "Name(arguments)" of each call, "error taken", "report ..." in between.
  std::vector<std::string> notes;
  int calls = 0;
  int blocks = 0;  // of the heap, allocated and not freed
  std::uint32_t last_error = 0;

  ScriptedWinHttp();
  ~ScriptedWinHttp();
  ScriptedWinHttp(const ScriptedWinHttp&) = delete;
  ScriptedWinHttp& operator=(const ScriptedWinHttp&) = delete;
};

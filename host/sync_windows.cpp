// Windows 8 and later: address waits, the performance counter, threads of the C runtime.
#define WIN32_LEAN_AND_MEAN
#include <windows.h>
// Behind it:
#include <process.h>
#include <synchapi.h>

#include <cstring>

#include "sync.h"

namespace zel::host {
namespace {

unsigned __stdcall start_routine(void* thread) {
  static_cast<Thread*>(thread)->run();
  return 0;
}

// For debuggers. Windows offers it since 10, version 1607.
void name_this_thread(const char* name) noexcept {
  using SetDescription = HRESULT(WINAPI*)(HANDLE thread, const wchar_t* description);
  SetDescription set_description = nullptr;
  const FARPROC found = GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "SetThreadDescription");
  static_assert(sizeof set_description == sizeof found);
  std::memcpy(&set_description, &found, sizeof found);
  wchar_t wide[64];
  if (set_description != nullptr && MultiByteToWideChar(CP_UTF8, 0, name, -1, wide, ARRAYSIZE(wide)) > 0) {
    set_description(GetCurrentThread(), wide);
  }
}

}  // namespace

static_assert(sizeof(std::atomic<std::uint32_t>) == sizeof(std::uint32_t), "the system compares the word itself");

void wait_on_word(const std::atomic<std::uint32_t>& word, std::uint32_t value) noexcept {
  WaitOnAddress(const_cast<std::atomic<std::uint32_t>*>(&word), &value, sizeof value, INFINITE);
}

void wake_one_on_word(const std::atomic<std::uint32_t>& word) noexcept {
  WakeByAddressSingle(const_cast<std::atomic<std::uint32_t>*>(&word));
}

std::uint64_t clock_count() noexcept {
  LARGE_INTEGER frequency, count;
  QueryPerformanceFrequency(&frequency);
  QueryPerformanceCounter(&count);
  const auto per_second = static_cast<std::uint64_t>(frequency.QuadPart);
  const auto now = static_cast<std::uint64_t>(count.QuadPart);
  // Seconds and remainder apart: nothing overflows.
  return now / per_second * kClockFrequency + now % per_second * kClockFrequency / per_second;
}

void sleep_milliseconds(std::uint32_t milliseconds) noexcept {
  Sleep(milliseconds < INFINITE ? milliseconds : INFINITE - 1);
}

bool Thread::start(ThreadEntry entry, void* argument, const char* name) noexcept {
  entry_ = entry;
  argument_ = argument;
  name_ = name;
  static_assert(sizeof(std::uintptr_t) <= sizeof system_handle_);
  system_handle_ = _beginthreadex(nullptr, 0, start_routine, this, 0, nullptr);
  return system_handle_ != 0;
}

void Thread::run() noexcept {
  if (name_ != nullptr) name_this_thread(name_);
  entry_(argument_);
}

void Thread::join() noexcept {
  auto* handle = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(system_handle_));
  WaitForSingleObject(handle, INFINITE);
  CloseHandle(handle);
}

}  // namespace zel::host

// Splitting of URLs, the request target made of one, and where a redirect leads.
//
// 1. Host and path stand in the URL, host before path; put together again they split into the same parts.
// 2. Nothing is read behind the URL or written behind the buffers; capacities that are too small come back as those
//    that are needed, and suffice.
// 3. A request target is printable ASCII without blanks and '#', begins with '/', and as a path makes itself again.
// 4. A redirect leads nowhere, or to a path of printable ASCII without fragment on such a host or one that is refused.
#include "url.h"

#include <cstdlib>
#include <memory>
#include <optional>
#include <vector>

#include "fuzz.h"
#include "winhttp.h"

namespace {

struct Parts {
  INTERNET_SCHEME scheme;
  INTERNET_PORT port;
  std::wstring host, path;
  bool operator==(const Parts&) const = default;
};

template <typename Character>
using Owned = std::unique_ptr<Character, decltype(&std::free)>;

std::wstring Widen(std::string_view text) {
  std::wstring wide;
  for (const char c : text)
    wide += static_cast<wchar_t>(static_cast<unsigned char>(c));
  return wide;
}

// Splits into buffers of exactly the capacities given, and those that turn out to be needed.
std::optional<Parts> Crack(const std::wstring& url, DWORD host_capacity, DWORD path_capacity) {
  const std::vector<wchar_t> exact(url.begin(), url.end());  // not terminated
  for (int attempt = 0; attempt < 2; ++attempt) {
    std::vector<wchar_t> host(host_capacity), path(path_capacity);
    URL_COMPONENTS parts = {};
    parts.dwStructSize = sizeof parts;
    parts.lpszHostName = host.data();
    parts.dwHostNameLength = host_capacity;
    parts.lpszUrlPath = path.data();
    parts.dwUrlPathLength = path_capacity;
    if (WinHttpCrackUrl(exact.data(), static_cast<DWORD>(exact.size()), 0, &parts) == TRUE) {
      FUZZ_CHECK(host[parts.dwHostNameLength] == 0 && path[parts.dwUrlPathLength] == 0);
      return Parts{
          parts.nScheme, parts.nPort, {host.data(), parts.dwHostNameLength}, {path.data(), parts.dwUrlPathLength}};
    }
    const DWORD error = GetLastError();
    if (error == ERROR_WINHTTP_UNRECOGNIZED_SCHEME || error == ERROR_WINHTTP_INVALID_URL) return std::nullopt;
    FUZZ_CHECK(error == ERROR_INSUFFICIENT_BUFFER);
    FUZZ_CHECK(parts.dwHostNameLength > host_capacity || parts.dwUrlPathLength > path_capacity);
    host_capacity = std::max(host_capacity, parts.dwHostNameLength);
    path_capacity = std::max(path_capacity, parts.dwUrlPathLength);
  }
  std::abort();
}

template <typename Character>
bool IsClean(const Character* text) {
  for (; *text != 0; ++text) {
    if (*text <= 0x20 || *text >= 0x7F || *text == '#') return false;
  }
  return true;
}

void CheckSplit(const std::wstring& text, DWORD host_capacity, DWORD path_capacity) {
  const std::optional<Parts> parts = Crack(text, host_capacity, path_capacity);
  if (!parts.has_value()) return;
  const std::wstring url = text.c_str();  // a terminator ends it, whatever its length
  FUZZ_CHECK(url.ends_with(parts->path));
  FUZZ_CHECK(url.substr(0, url.size() - parts->path.size()).find(parts->host) != std::wstring::npos);
  FUZZ_CHECK(parts->port != 0 && parts->host.find_first_of(L"/?#") == std::wstring::npos);
  FUZZ_CHECK(parts->path.empty() || std::wstring(L"/?#").find(parts->path[0]) != std::wstring::npos);
  // With user information, so that an '@' in the host stays there.
  const std::wstring scheme = parts->scheme == INTERNET_SCHEME_HTTPS ? L"https" : L"http";
  const std::wstring again = scheme + L"://u@" + parts->host + L":" + std::to_wstring(parts->port) + parts->path;
  FUZZ_CHECK(Crack(again, 1, 1) == parts);
}

void CheckTarget(const std::wstring& path) {
  DWORD error = 0;
  const Owned<char> target(zelHttpUrl_MakeTarget(path.data(), path.size(), &error), std::free);
  const bool bytes = std::all_of(path.begin(), path.end(), [](wchar_t unit) { return unit >= 0 && unit <= 0xFF; });
  FUZZ_CHECK((target != nullptr) == bytes);
  FUZZ_CHECK(bytes || error == ERROR_INVALID_PARAMETER);
  if (!bytes) return;
  FUZZ_CHECK(target.get()[0] == '/' && IsClean(target.get()));
  const std::wstring wide = Widen(target.get());
  const Owned<char> again(zelHttpUrl_MakeTarget(wide.data(), wide.size(), &error), std::free);
  FUZZ_CHECK(std::strcmp(target.get(), again.get()) == 0);
}

void CheckRedirect(std::string_view location) {
  wchar_t* url = nullptr;
  const std::vector<char> exact(location.begin(), location.end());
  const DWORD error = zelHttpUrl_Resolve("https://host.example:8443/v1/a?b=c", exact.data(), exact.size(), &url);
  const Owned<wchar_t> owned(url, std::free);
  FUZZ_CHECK((error == 0) == (url != nullptr));
  const std::optional<Parts> parts = url != nullptr ? Crack(url, 1, 1) : std::nullopt;
  if (!parts.has_value()) return;
  const std::string host(parts->host.begin(), parts->host.end());
  FUZZ_CHECK(IsClean(parts->path.c_str()) && (IsClean(host.c_str()) || !zelHttpUrl_IsHost(host.c_str())));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const DWORD host_capacity = 1 + input.below(256), path_capacity = 1 + input.below(256);
  const std::string_view text = input.rest();
  if (text.empty()) return 0;  // without a length, the URL would end at a terminator
  std::wstring url = Widen(text);
  // A byte that UTF-8 never has stands for a unit that is no byte.
  std::replace(url.begin(), url.end(), L'\xFF', L'\x20AC');
  CheckSplit(url, host_capacity, path_capacity);
  CheckTarget(url);
  CheckRedirect(text);
  return 0;
}

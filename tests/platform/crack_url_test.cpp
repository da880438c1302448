#include <gtest/gtest.h>

#include <string>

#include "winhttp.h"

namespace {

// The parts as "scheme|host|port|path", or the number of the error.
std::wstring Crack(const std::wstring& url) {
  wchar_t host[256], path[512];
  URL_COMPONENTS parts = {};
  parts.dwStructSize = sizeof parts;
  parts.lpszHostName = host;
  parts.dwHostNameLength = 256;
  parts.lpszUrlPath = path;
  parts.dwUrlPathLength = 512;
  if (!WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size() + 1), 0, &parts))
    return std::to_wstring(GetLastError());
  return std::to_wstring(parts.nScheme) + L"|" + host + L"|" + std::to_wstring(parts.nPort) + L"|" + path;
}

TEST(WinHttpCrackUrl, SplitsOrRefuses) {
  const std::wstring longest(255, L'h');
  const std::pair<std::wstring, std::wstring> kUrls[] = {
      {L"http://h", L"1|h|80|"},
      {L"HttpS://H/", L"2|H|443|/"},
      {L"https://h:80/a?b=c", L"2|h|80|/a?b=c"},
      {L"http://h:/a", L"1|h|80|/a"},
      {L"http://h:0/a", L"1|h|80|/a"},
      {L"http://h:65535", L"1|h|65535|"},
      {L"http://h:80abc/", L"1|h|80|/"},
      {L"http://u:p@h:8/a@b", L"1|h|8|/a@b"},
      {L"http://h?x=a@b:1", L"1|h|80|?x=a@b:1"},
      {L"http://h:81#f", L"1|h|81|#f"},
      {L"http://[::1]:81/a", L"1|[::1]|81|/a"},
      {L"http:///a", L"1||80|/a"},
      {L"http://h/a b\x01\xE9%zz", L"1|h|80|/a b\x01\xE9%zz"},
      {L"http://" + longest + L"/", L"1|" + longest + L"|80|/"},
      {L"http://" + longest + L"h/", L"122"},
      {L"", L"12006"},
      {L"http", L"12006"},
      {L"//h/a", L"12006"},
      {L" http://h", L"12006"},
      {L"httpx://h", L"12006"},
      {L"http:", L"12005"},
      {L"http:/h", L"12005"},
      {L"https://", L"12005"},
      {L"http://h:65536", L"12005"},
      {L"http://h:99999999999", L"12005"},
      {L"http://[::1", L"12005"},
      {L"http://[::1]x/", L"12005"},
  };
  for (const auto& [url, parts] : kUrls)
    EXPECT_EQ(Crack(url), parts) << testing::PrintToString(url);
}

}  // namespace

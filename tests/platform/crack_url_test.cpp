#include <gtest/gtest.h>

#include <string>

#include "winhttp.h"

namespace {

struct Cracked {
  BOOL ok;
  wchar_t host[256];
  wchar_t path[512];
  URL_COMPONENTS parts;
};

Cracked Crack(const std::wstring& url, DWORD path_capacity = 512) {
  Cracked cracked = {};
  cracked.parts.dwStructSize = sizeof cracked.parts;
  cracked.parts.lpszHostName = cracked.host;
  cracked.parts.dwHostNameLength = 256;
  cracked.parts.lpszUrlPath = cracked.path;
  cracked.parts.dwUrlPathLength = path_capacity;
  SetLastError(0);
  cracked.ok = WinHttpCrackUrl(url.c_str(), static_cast<DWORD>(url.size() + 1), 0, &cracked.parts);
  return cracked;
}

TEST(WinHttpCrackUrl, Splits) {
  const struct {
    const wchar_t* url;
    INTERNET_SCHEME scheme;
    const wchar_t* host;
    INTERNET_PORT port;
    const wchar_t* path;
  } kUrls[] = {
      {L"http://h", 1, L"h", 80, L""},
      {L"HttpS://H/", 2, L"H", 443, L"/"},
      {L"https://h:80/a?b=c", 2, L"h", 80, L"/a?b=c"},
      {L"http://h:/a", 1, L"h", 80, L"/a"},
      {L"http://h:0/a", 1, L"h", 80, L"/a"},
      {L"http://h:65535", 1, L"h", 65535, L""},
      {L"http://h:80abc/", 1, L"h", 80, L"/"},
      {L"http://u:p@h:8/a@b", 1, L"h", 8, L"/a@b"},
      {L"http://h?x=a@b:1", 1, L"h", 80, L"?x=a@b:1"},
      {L"http://h:81#f", 1, L"h", 81, L"#f"},
      {L"http://[::1]:81/a", 1, L"[::1]", 81, L"/a"},
      {L"http:///a", 1, L"", 80, L"/a"},
      {L"http://h/a b\x01\xE9%zz", 1, L"h", 80, L"/a b\x01\xE9%zz"},
  };
  for (const auto& url : kUrls) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(url.url)));
    const Cracked cracked = Crack(url.url);
    EXPECT_TRUE(cracked.ok);
    EXPECT_EQ(cracked.parts.nScheme, url.scheme);
    EXPECT_STREQ(cracked.host, url.host);
    EXPECT_EQ(cracked.parts.nPort, url.port);
    EXPECT_STREQ(cracked.path, url.path);
  }
}

TEST(WinHttpCrackUrl, Refuses) {
  const struct {
    const wchar_t* url;
    DWORD error;
  } kUrls[] = {
      {L"", 12006},
      {L"http", 12006},
      {L"h/a", 12006},
      {L"//h/a", 12006},
      {L" http://h", 12006},
      {L"ws://h", 12006},
      {L"httpx://h", 12006},
      {L"http:", 12005},
      {L"http:/h", 12005},
      {L"https://", 12005},
      {L"http:\\\\h", 12005},
      {L"http://h:65536", 12005},
      {L"http://[::1", 12005},
      {L"http://[::1]x/", 12005},
      {L"http://h:99999999999", 12005},
  };
  for (const auto& url : kUrls) {
    SCOPED_TRACE(testing::PrintToString(std::wstring(url.url)));
    EXPECT_FALSE(Crack(url.url).ok);
    EXPECT_EQ(GetLastError(), url.error);
  }
}

TEST(WinHttpCrackUrl, TellsNeededCapacities) {
  EXPECT_TRUE(Crack(L"http://" + std::wstring(255, L'h') + L"/").ok);
  const Cracked cracked = Crack(L"http://" + std::wstring(256, L'h') + L"/abc", 4);
  EXPECT_FALSE(cracked.ok);
  EXPECT_EQ(GetLastError(), 122u);
  EXPECT_EQ(cracked.parts.dwHostNameLength, 257u);
  EXPECT_EQ(cracked.parts.dwUrlPathLength, 5u);
}

}  // namespace

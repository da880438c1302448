// What the exchanges of tests/wreq do not show of the layer.
#include "winhttp.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "http_server.h"

using kit::HttpServer;
using kit::ReadRequest;
using kit::Script;
using kit::Send;

namespace {

std::atomic<int> files_refused;  // so many more files will not open for want of descriptors

// A name server that never answers for "stalled.invalid" before it is told to, gives "two.invalid" the addresses
// 127.0.0.2 and 127.0.0.1, and knows no other name.
struct NameServer {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = false;
  int asked = 0;
};
NameServer name_server;

}  // namespace

// These take the places of the C library's for this program.
extern "C" __attribute__((visibility("default"))) FILE* fopen64(const char* path, const char* mode) {
  static const auto open = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen64"));
  if (files_refused.fetch_sub(1) <= 0) return open(path, mode);
  errno = EMFILE;
  return nullptr;
}

extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char* service,
                                                                  const addrinfo* hints, addrinfo** result) {
  *result = nullptr;
  if (std::strcmp(name, "two.invalid") == 0) {
    static const auto look_up = reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    const int error = look_up("127.0.0.2", service, &numeric, result);
    return error != 0 ? error : look_up("127.0.0.1", service, &numeric, &(*result)->ai_next);
  }
  std::unique_lock lock(name_server.mutex);
  ++name_server.asked;
  if (std::strcmp(name, "stalled.invalid") == 0) name_server.changed.wait(lock, [] { return name_server.open; });
  return EAI_NONAME;
}

namespace {

struct CloseHandle {
  void operator()(void* handle) const { WinHttpCloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseHandle>;

// A POST past all proxies, of which nothing has been sent yet. Members are closed in reverse order.
struct Exchange {
  explicit Exchange(unsigned port, LPCWSTR host = L"127.0.0.1", int timeout = 60000, DWORD flags = 0) {
    kit::UseNoProxy();
    session.reset(WinHttpOpen(L"Agent/1", WINHTTP_ACCESS_TYPE_DEFAULT_PROXY, nullptr, nullptr, 0));
    EXPECT_TRUE(WinHttpSetTimeouts(session.get(), timeout, timeout, timeout, timeout));
    connection.reset(WinHttpConnect(session.get(), host, static_cast<INTERNET_PORT>(port), 0));
    request.reset(WinHttpOpenRequest(connection.get(), L"POST", L"/p", nullptr, nullptr, nullptr, flags));
  }

  bool Add(const std::wstring& line) {
    return WinHttpAddRequestHeaders(request.get(), line.c_str(), static_cast<DWORD>(-1), WINHTTP_ADDREQ_FLAG_ADD) != 0;
  }

  // The error of sending and receiving, or 0.
  DWORD Perform(std::string body = "{}") {
    sent = std::move(body);
    const DWORD size = static_cast<DWORD>(sent.size());
    SetLastError(0);
    if (WinHttpSendRequest(request.get(), nullptr, 0, sent.data(), size, size, 0))
      WinHttpReceiveResponse(request.get(), nullptr);
    return GetLastError();
  }

  Handle session, connection, request;
  std::string sent = {};
};

TEST(WinHttp, ReadsProxiesOfTheEnvironment) {
  const struct {
    std::map<std::string, std::string> environment;
    const wchar_t *list, *bypass;
  } kCases[] = {
      {{}, nullptr, nullptr},
      {{{"HTTP_PROXY", "a:1"}}, nullptr, nullptr},
      {{{"http_proxy", "a:1"}}, L"http=a:1", nullptr},
      {{{"http_proxy", "a:1"}, {"HTTPS_PROXY", "http://b:2"}}, L"http=a:1;https=http://b:2", nullptr},
      {{{"all_proxy", "c:3"}, {"https_proxy", "b:2"}}, L"http=c:3;https=b:2", nullptr},
      {{{"all_proxy", "c:3"}, {"no_proxy", "x.y, .z,*.w"}}, L"http=c:3;https=c:3", L"x.y;*.x.y;z;*.z;w;*.w"},
      {{{"all_proxy", "c:3"}, {"NO_PROXY", "*"}}, nullptr, nullptr},
      {{{"http_proxy", " \t"}}, nullptr, nullptr},
      {{{"http_proxy", " "}, {"https_proxy", "\t"}, {"all_proxy", "c:3"}, {"no_proxy", " "}, {"NO_PROXY", "x"}},
       L"http=c:3;https=c:3",
       L"x;*.x"},
      {{{"http_proxy", " http://a:1\n"}}, L"http=http://a:1", nullptr},
      {{{"http_proxy", "http://\xE9:a;b@c"}}, L"http=http://%E9:a%3Bb@c", nullptr},
  };
  for (const auto& [environment, list, bypass] : kCases) {
    kit::UseNoProxy();
    for (const auto& [name, value] : environment)
      setenv(name.c_str(), value.c_str(), 1);
    WINHTTP_CURRENT_USER_IE_PROXY_CONFIG config;
    EXPECT_TRUE(WinHttpGetIEProxyConfigForCurrentUser(&config));
    EXPECT_STREQ(config.lpszProxy, list);
    EXPECT_STREQ(config.lpszProxyBypass, bypass);
    GlobalFree(config.lpszProxy);
    GlobalFree(config.lpszProxyBypass);
  }
}

TEST(WinHttp, BoundsTheNameLookup) {
  EXPECT_EQ(Exchange(80, L"name.invalid").Perform(), 12007u);
  // The lookup goes on until the end of this test; the exchange and its handles do not wait for it.
  EXPECT_EQ(Exchange(80, L"stalled.invalid", 200).Perform(), 12002u);
  const std::lock_guard lock(name_server.mutex);
  EXPECT_EQ(name_server.asked, 2);
  name_server.open = true;
  name_server.changed.notify_all();
}

// The first address has a listener that lets nobody in; half of the time for connecting is left for the second.
TEST(WinHttp, TriesTheNextAddress) {
  const HttpServer server(Script{ReadRequest(), Send(kit::Reply("200 OK", ""))});
  const int listener = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address = {.sin_family = AF_INET, .sin_port = htons(server.port()), .sin_addr = {}, .sin_zero = {}};
  inet_pton(AF_INET, "127.0.0.2", &address.sin_addr);
  ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(listen(listener, 0), 0);
  const int guest = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_EQ(connect(guest, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  EXPECT_EQ(Exchange(server.port(), L"two.invalid", 6000).Perform(), 0u);
  close(guest);
  close(listener);
}

// Certificates that could not be loaded once, for want of descriptors or for whatever reason, are loaded by the next
// exchange.
TEST(WinHttp, GetsOverMissingCertificates) {
  const HttpServer server(Script{kit::Tls(), ReadRequest(), Send(kit::Reply("200 OK", ""))});
  setenv("SSL_CERT_FILE", "/dev/null", 1);
  EXPECT_EQ(Exchange(server.port(), L"127.0.0.1", 60000, WINHTTP_FLAG_SECURE).Perform(), 12175u);
  kit::TrustTestAuthority();
  files_refused = 1;
  EXPECT_EQ(Exchange(server.port(), L"127.0.0.1", 60000, WINHTTP_FLAG_SECURE).Perform(), 8u);
  EXPECT_EQ(Exchange(server.port(), L"127.0.0.1", 60000, WINHTTP_FLAG_SECURE).Perform(), 0u);
}

// The raw head of the final reply; body in bounded pieces; all bytes before the error behind them.
TEST(WinHttp, ShowsTheWholeReply) {
  const HttpServer server(
      Script{ReadRequest(), Send("HTTP/1.1 103 X\r\nA: 1\r\n\r\nHTTP/1.1 404 No\nB: \xE9\nContent-Length: 50000\n\n" +
                                 std::string(40000, 'x'))});
  Exchange exchange(server.port());
  HINTERNET const request = exchange.request.get();
  ASSERT_EQ(exchange.Perform(), 0u);
  const std::wstring head = L"HTTP/1.1 404 No\r\nB: \xE9\r\nContent-Length: 50000\r\n\r\n";
  std::wstring text(head.size() + 1, L'?');
  DWORD size = 0;
  EXPECT_FALSE(WinHttpQueryHeaders(request, WINHTTP_QUERY_RAW_HEADERS_CRLF, nullptr, nullptr, &size, nullptr));
  EXPECT_EQ(GetLastError(), 122u);
  EXPECT_EQ(size, text.size() * sizeof(wchar_t));
  EXPECT_TRUE(WinHttpQueryHeaders(request, WINHTTP_QUERY_RAW_HEADERS_CRLF, nullptr, text.data(), &size, nullptr));
  EXPECT_EQ(text.c_str(), head);

  DWORD total = 0, available = 0, read = 0;
  char piece[16384];
  while (total < 30000 && WinHttpQueryDataAvailable(request, &available)) {
    ASSERT_LE(available, 8192u);
    EXPECT_TRUE(WinHttpReadData(request, piece, available, &read));
    EXPECT_EQ(read, available);
    total += read;
  }
  EXPECT_TRUE(WinHttpReadData(request, piece, sizeof piece, &read));
  EXPECT_EQ(total + read, 40000u);
  EXPECT_FALSE(WinHttpReadData(request, piece, sizeof piece, &read));
  EXPECT_EQ(GetLastError(), 12030u);
}

TEST(WinHttp, ChecksHeaderLines) {
  const HttpServer server(Script{ReadRequest(), Send(kit::Reply("200 OK", ""))});
  Exchange exchange(server.port());
  const std::pair<const wchar_t*, DWORD> kLines[] = {
      {L"X-A:1", 0},  {L"x-a: 2", 0},        {L"X-U:\xE9", 0},  {L"Accept:text/plain", 0}, {L"Connection:close", 0},
      {L":v", 12153}, {L"XA", 12153},        {L"X A:v", 12153}, {L" X:v", 12153},          {L"X\xE9:v", 12153},
      {L"", 12153},   {L"X-B:1\r\nC:2", 87}, {L"X-B:1\n", 87},
  };
  for (const auto& [line, error] : kLines) {
    SetLastError(0);
    EXPECT_EQ(exchange.Add(line), error == 0);
    EXPECT_EQ(GetLastError(), error) << testing::PrintToString(std::wstring(line));
  }
  ASSERT_EQ(exchange.Perform(), 0u);
  EXPECT_FALSE(exchange.Add(L"Too:late"));
  const std::string request = server.requests()[0];
  EXPECT_NE(request.find("X-A: 1\r\nx-a: 2\r\nX-U: \xC3\xA9\r\nAccept: text/plain\r\nConnection: close\r\n"),
            std::string::npos)
      << request;
  EXPECT_EQ(request.find("Keep-Alive"), std::string::npos);
}

TEST(WinHttp, RefusesCallsOutOfOrder) {
  Exchange exchange(1);
  HINTERNET const request = exchange.request.get();
  DWORD count = 0;
  const auto error_of = [](BOOL result) { return result != 0 ? 0 : GetLastError(); };
  EXPECT_EQ(error_of(WinHttpReceiveResponse(request, nullptr)), 12019u);
  EXPECT_EQ(error_of(WinHttpQueryDataAvailable(request, &count)), 12019u);
  EXPECT_EQ(exchange.Perform(), 12029u);
  EXPECT_EQ(error_of(WinHttpReceiveResponse(request, nullptr)), 12019u);
  EXPECT_EQ(error_of(WinHttpSetTimeouts(exchange.session.get(), 1, -2, 1, 1)), 87u);
  EXPECT_EQ(error_of(WinHttpSetTimeouts(request, 1, 1, 1, 1)), 12018u);
}

TEST(WinHttp, RaisesNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  const HttpServer server(Script{kit::ReadSome(), kit::Reset()});
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(Exchange(server.port()).Perform(std::string(20000000, 'b')), 12030u);
  sigset_t mask, pending;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

}  // namespace

#include "winhttp.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <signal.h>

#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "http_server.h"

using kit::HttpServer;
using kit::ReadHead;
using kit::ReadRequest;
using kit::Reply;
using kit::Script;
using kit::Send;
using kit::Stall;
using kit::Tls;

namespace {

// A name server that never answers for "stalled.invalid" before it is told to, and knows no other name.
struct NameServer {
  std::mutex mutex;
  std::condition_variable changed;
  bool open = false;
  int asked = 0;
};
NameServer name_server;

}  // namespace

// Takes the place of the C library's for this program.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* name, const char*, const addrinfo*,
                                                                  addrinfo** result) {
  *result = nullptr;
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

// The three handles of one exchange; members are closed in reverse order.
struct Exchange {
  Handle session;
  Handle connection;
  Handle request;

  bool Perform(std::string body = "{}") {
    sent = std::move(body);
    const DWORD size = static_cast<DWORD>(sent.size());
    return WinHttpSendRequest(request.get(), nullptr, 0, sent.data(), size, size, 0) &&
           WinHttpReceiveResponse(request.get(), nullptr);
  }

  DWORD Status() const {
    DWORD status = 0;
    DWORD size = sizeof status;
    WinHttpQueryHeaders(request.get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &status, &size,
                        nullptr);
    return status;
  }

  // The body up to its end or the first error.
  std::string ReadAll(DWORD* largest = nullptr) const {
    std::string body;
    DWORD available = 0;
    while (WinHttpQueryDataAvailable(request.get(), &available) && available > 0) {
      if (largest != nullptr && available > *largest) *largest = available;
      std::string piece(available, '\0');
      DWORD read = 0;
      EXPECT_TRUE(WinHttpReadData(request.get(), piece.data(), available, &read));
      EXPECT_EQ(read, available);
      body += piece;
    }
    return body;
  }

  std::string sent = {};
};

struct Target {
  std::wstring host = L"127.0.0.1";
  unsigned port = 0;
  bool secure = false;
  int timeout = 5000;  // ms
  std::wstring path = L"/p";
};

// As a caller opens it, proxies of the environment included.
Exchange Open(const Target& target) {
  WINHTTP_CURRENT_USER_IE_PROXY_CONFIG config;
  EXPECT_TRUE(WinHttpGetIEProxyConfigForCurrentUser(&config));
  Exchange exchange;
  const bool named = config.lpszProxy != nullptr;
  exchange.session.reset(WinHttpOpen(L"Agent/1",
                                     named ? WINHTTP_ACCESS_TYPE_NAMED_PROXY : WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                     config.lpszProxy, config.lpszProxyBypass, 0));
  GlobalFree(config.lpszProxy);
  GlobalFree(config.lpszProxyBypass);
  const int t = target.timeout;
  EXPECT_TRUE(WinHttpSetTimeouts(exchange.session.get(), t, t, t, t));
  exchange.connection.reset(
      WinHttpConnect(exchange.session.get(), target.host.c_str(), static_cast<INTERNET_PORT>(target.port), 0));
  exchange.request.reset(WinHttpOpenRequest(exchange.connection.get(), L"POST", target.path.c_str(), nullptr, nullptr,
                                            nullptr, target.secure ? WINHTTP_FLAG_SECURE : 0));
  return exchange;
}

BOOL AddHeader(const Exchange& exchange, const std::wstring& line) {
  return WinHttpAddRequestHeaders(exchange.request.get(), line.c_str(), static_cast<DWORD>(-1),
                                  WINHTTP_ADDREQ_FLAG_ADD);
}

class WinHttp : public testing::Test {
 protected:
  static void SetUpTestSuite() { kit::TrustTestAuthority(); }
  void SetUp() override { kit::UseNoProxy(); }

  static void UseProxy(const char* variable, unsigned port) {
    setenv(variable, ("http://127.0.0.1:" + std::to_string(port)).c_str(), 1);
  }
};

TEST_F(WinHttp, ReadsProxiesOfTheEnvironment) {
  const struct {
    std::map<std::string, std::string> environment;
    const wchar_t* list;
    const wchar_t* bypass;
  } kCases[] = {
      {{}, nullptr, nullptr},
      {{{"HTTP_PROXY", "a:1"}}, nullptr, nullptr},
      {{{"http_proxy", "a:1"}}, L"http=a:1", nullptr},
      {{{"http_proxy", "a:1"}, {"HTTPS_PROXY", "http://b:2"}}, L"http=a:1;https=http://b:2", nullptr},
      {{{"all_proxy", "c:3"}, {"https_proxy", "b:2"}}, L"http=c:3;https=b:2", nullptr},
      {{{"all_proxy", "c:3"}, {"no_proxy", "x.y, .z,*.w"}}, L"http=c:3;https=c:3", L"x.y;*.x.y;z;*.z;w;*.w"},
      {{{"all_proxy", "c:3"}, {"NO_PROXY", "*"}}, nullptr, nullptr},
      {{{"http_proxy", "a:1;b:2"}}, nullptr, nullptr},
  };
  for (const auto& c : kCases) {
    SetUp();
    for (const auto& [name, value] : c.environment)
      setenv(name.c_str(), value.c_str(), 1);
    WINHTTP_CURRENT_USER_IE_PROXY_CONFIG config;
    EXPECT_TRUE(WinHttpGetIEProxyConfigForCurrentUser(&config));
    EXPECT_STREQ(config.lpszProxy, c.list);
    EXPECT_STREQ(config.lpszProxyBypass, c.bypass);
    GlobalFree(config.lpszProxy);
    GlobalFree(config.lpszProxyBypass);
  }
}

TEST_F(WinHttp, SendsThePlainRequestToTheProxy) {
  const HttpServer proxy(Script{ReadRequest(), Send(Reply("200 OK", "ok"))});
  UseProxy("http_proxy", proxy.port());
  Exchange exchange = Open({.host = L"name.invalid", .port = 80, .path = L"/a?b=c"});
  ASSERT_TRUE(exchange.Perform()) << GetLastError();
  EXPECT_EQ(exchange.ReadAll(), "ok");
  EXPECT_EQ(proxy.requests()[0].find("POST http://name.invalid:80/a?b=c HTTP/1.1\r\n"), 0u);
}

TEST_F(WinHttp, KeepsCallerHeadersOutOfTheTunnel) {
  const HttpServer proxy(Script{ReadHead(), Send("HTTP/1.1 200 Yes\r\nX-Proxy: 1\r\n\r\n"), Tls(), ReadRequest(),
                                Send(Reply("200 OK", "ok"))});
  UseProxy("https_proxy", proxy.port());
  Exchange exchange = Open({.port = 4433, .secure = true});
  ASSERT_TRUE(AddHeader(exchange, L"Authorization:Bearer t"));
  ASSERT_TRUE(exchange.Perform()) << GetLastError();
  EXPECT_EQ(exchange.ReadAll(), "ok");
  ASSERT_EQ(proxy.requests().size(), 2u);
  EXPECT_EQ(proxy.requests()[0].find("CONNECT 127.0.0.1:4433 HTTP/1.1\r\n"), 0u);
  EXPECT_EQ(proxy.requests()[0].find("Bearer"), std::string::npos);
  EXPECT_EQ(proxy.requests()[1].find("POST /p HTTP/1.1\r\n"), 0u);
  EXPECT_NE(proxy.requests()[1].find("Bearer t"), std::string::npos);
}

TEST_F(WinHttp, TellsWhatTheTunnelFailedOf) {
  const struct {
    Script script;
    DWORD error;
  } kCases[] = {
      {{ReadHead(), Send(Reply("407 Who", ""))}, 12029},
      {{ReadHead(), Send(Reply("502 Bad", "x"))}, 12029},
      {{ReadHead()}, 12030},
      {{ReadHead(), Stall()}, 12002},
  };
  for (const auto& c : kCases) {
    const HttpServer proxy(c.script);
    UseProxy("https_proxy", proxy.port());
    EXPECT_FALSE(Open({.port = 4433, .secure = true, .timeout = 500}).Perform());
    EXPECT_EQ(GetLastError(), c.error);
  }
}

TEST_F(WinHttp, GoesPastTheProxyToExceptions) {
  const HttpServer server(Script{ReadRequest(), Send(Reply("200 OK", "direct"))});
  UseProxy("http_proxy", 1);
  for (const char* exceptions : {"127.0.0.1", "a,0.0.1", "*.0.0.1"}) {
    setenv("no_proxy", exceptions, 1);
    Exchange exchange = Open({.port = server.port()});
    EXPECT_TRUE(exchange.Perform()) << exceptions;
    EXPECT_EQ(exchange.ReadAll(), "direct");
  }
  setenv("no_proxy", "27.0.0.1", 1);
  EXPECT_FALSE(Open({.port = server.port()}).Perform());
  EXPECT_EQ(GetLastError(), 12029u);
}

TEST_F(WinHttp, BoundsTheNameLookup) {
  const auto perform = [](const wchar_t* host) {
    Exchange exchange = Open({.host = host, .port = 80, .timeout = 200});
    EXPECT_FALSE(exchange.Perform());
    return GetLastError();
  };
  EXPECT_EQ(perform(L"name.invalid"), 12007u);
  // The lookup goes on until the end of this test; the exchange and its handles do not wait for it.
  EXPECT_EQ(perform(L"stalled.invalid"), 12002u);
  const std::lock_guard lock(name_server.mutex);
  EXPECT_EQ(name_server.asked, 2);
  name_server.open = true;
  name_server.changed.notify_all();
}

TEST_F(WinHttp, DeliversALargeBodyInBoundedPieces) {
  std::string body(3000000, '\0');
  for (std::size_t i = 0; i < body.size(); ++i)
    body[i] = static_cast<char>(i * 31 >> 7);
  char size[16];
  std::snprintf(size, sizeof size, "%zx", body.size());
  const std::string chunked =
      "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n" + std::string(size) + "\r\n" + body + "\r\n0\r\n\r\n";
  for (const bool secure : {false, true}) {
    Script script = {ReadRequest(), Send(secure ? chunked : Reply("200 OK", body))};
    if (secure) script.insert(script.begin(), Tls());
    const HttpServer server(script);
    Exchange exchange = Open({.port = server.port(), .secure = secure});
    ASSERT_TRUE(exchange.Perform()) << GetLastError();
    DWORD largest = 0;
    EXPECT_TRUE(exchange.ReadAll(&largest) == body);
    EXPECT_LE(largest, 8192u);
    DWORD available = 1;
    EXPECT_TRUE(WinHttpQueryDataAvailable(exchange.request.get(), &available));
    EXPECT_EQ(available, 0u);
  }
}

TEST_F(WinHttp, DeliversBytesBeforeTheErrorBehindThem) {
  const HttpServer server(Script{ReadRequest(), Send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nabc")});
  Exchange exchange = Open({.port = server.port()});
  ASSERT_TRUE(exchange.Perform());
  char bytes[9];
  DWORD read = 0;
  EXPECT_TRUE(WinHttpReadData(exchange.request.get(), bytes, sizeof bytes, &read));
  EXPECT_EQ(std::string(bytes, read), "abc");
  EXPECT_FALSE(WinHttpReadData(exchange.request.get(), bytes, sizeof bytes, &read));
  EXPECT_EQ(GetLastError(), 12030u);
}

TEST_F(WinHttp, ShowsTheRawHeadOfTheFinalReply) {
  const HttpServer server(
      Script{ReadRequest(), Send("HTTP/1.1 103 X\r\nA: 1\r\n\r\nHTTP/1.1 404 No\nB: \xE9\nContent-Length: 0\n\n")});
  Exchange exchange = Open({.port = server.port()});
  ASSERT_TRUE(exchange.Perform());
  const std::wstring head = L"HTTP/1.1 404 No\r\nB: \xE9\r\nContent-Length: 0\r\n\r\n";
  DWORD size = 0;
  EXPECT_FALSE(
      WinHttpQueryHeaders(exchange.request.get(), WINHTTP_QUERY_RAW_HEADERS_CRLF, nullptr, nullptr, &size, nullptr));
  EXPECT_EQ(GetLastError(), 122u);
  EXPECT_EQ(size, (head.size() + 1) * sizeof(wchar_t));
  std::wstring text(head.size() + 1, L'?');
  EXPECT_TRUE(WinHttpQueryHeaders(exchange.request.get(), WINHTTP_QUERY_RAW_HEADERS_CRLF, nullptr, text.data(), &size,
                                  nullptr));
  EXPECT_EQ(text.c_str(), head);
  EXPECT_EQ(exchange.Status(), 404u);
}

TEST_F(WinHttp, ChecksHeaderLines) {
  const HttpServer server(Script{ReadRequest(), Send(Reply("200 OK", ""))});
  Exchange exchange = Open({.port = server.port()});
  const struct {
    const wchar_t* line;
    DWORD error;  // 0: accepted
  } kLines[] = {
      {L"X-A:1", 0},  {L"x-a: 2", 0},        {L"X-U:\xE9", 0},  {L"Accept:text/plain", 0}, {L"Connection:close", 0},
      {L":v", 12153}, {L"XA", 12153},        {L"X A:v", 12153}, {L" X:v", 12153},          {L"X\xE9:v", 12153},
      {L"", 12153},   {L"X-B:1\r\nC:2", 87}, {L"X-B:1\n", 87},
  };
  for (const auto& line : kLines) {
    SetLastError(0);
    EXPECT_EQ(AddHeader(exchange, line.line), line.error == 0);
    EXPECT_EQ(GetLastError(), line.error) << testing::PrintToString(std::wstring(line.line));
  }
  ASSERT_TRUE(exchange.Perform());
  const std::string request = server.requests()[0];
  EXPECT_NE(request.find("X-A: 1\r\nx-a: 2\r\nX-U: \xC3\xA9\r\nAccept: text/plain\r\nConnection: close\r\n"),
            std::string::npos)
      << request;
  EXPECT_EQ(request.find("Keep-Alive"), std::string::npos);
  EXPECT_NE(request.find("User-Agent: Agent/1\r\n"), std::string::npos);
}

TEST_F(WinHttp, RefusesCallsOutOfOrder) {
  Exchange exchange = Open({.port = 1});
  DWORD count = 0;
  EXPECT_FALSE(WinHttpReceiveResponse(exchange.request.get(), nullptr));
  EXPECT_EQ(GetLastError(), 12019u);
  EXPECT_FALSE(WinHttpQueryDataAvailable(exchange.request.get(), &count));
  EXPECT_EQ(GetLastError(), 12019u);
  EXPECT_FALSE(exchange.Perform());
  EXPECT_EQ(GetLastError(), 12029u);
  EXPECT_FALSE(WinHttpReceiveResponse(exchange.request.get(), nullptr));
  EXPECT_EQ(GetLastError(), 12019u);
  EXPECT_FALSE(WinHttpSetTimeouts(exchange.session.get(), 1, -2, 1, 1));
  EXPECT_EQ(GetLastError(), 87u);
  EXPECT_FALSE(WinHttpSetTimeouts(exchange.request.get(), 1, 1, 1, 1));
  EXPECT_EQ(GetLastError(), 12018u);
}

TEST_F(WinHttp, RaisesNoSignal) {
  signal(SIGPIPE, SIG_DFL);
  const HttpServer server(Script{kit::ReadSome(), kit::Reset()});
  for (int i = 0; i < 5; ++i) {
    EXPECT_FALSE(Open({.port = server.port()}).Perform(std::string(20000000, 'b')));
    EXPECT_EQ(GetLastError(), 12030u);
  }
  sigset_t mask;
  sigset_t pending;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  sigpending(&pending);
  EXPECT_EQ(sigismember(&mask, SIGPIPE), 0);
  EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

}  // namespace

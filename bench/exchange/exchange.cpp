// exchange_plain, exchange_tls: one utterance of 10 KB posted over loopback, its reply of 100 bytes read. One iteration
// is one exchange, CPU time is that of the thread that makes it.
#include "exchange.h"

#include <benchmark/benchmark.h>

#include <functional>
#include <stdexcept>
#include <vector>

#include "contestants.h"
#include "program.h"

namespace bench {
namespace {

using Exchange = std::function<std::string(const Post&)>;

struct Contestant {
  const char* name;
  Exchange exchange;
};

// Some ten seconds of speech, as far as libcurl cares.
std::vector<unsigned char> make_body() {
  std::vector<unsigned char> body(10'240);
  unsigned value = 1;
  for (unsigned char& byte : body)
    byte = static_cast<unsigned char>((value = value * 1'664'525 + 1'013'904'223) >> 24);
  return body;
}

Post make_post(const std::string& origin, const char* path) {
  static const std::vector<unsigned char> body = make_body();
  return {origin, std::string(path) + "?language=en-US&speaker=user01", "Bearer " + std::string(64, 't'), body};
}

// All send the same bytes of head (the service hands them back) and hear the same reply.
void check(const std::string& row, const std::string& origin, const std::vector<Contestant>& contestants) {
  for (const char* path : {"/echo", "/stt"}) {
    const std::string expected = contestants.front().exchange(make_post(origin, path));
    for (const Contestant& contestant : contestants) {
      const std::string got = contestant.exchange(make_post(origin, path));
      if (got != expected)
        throw std::runtime_error(std::string(row).append("/").append(contestant.name).append(" differs: ").append(got));
    }
  }
}

// Not inlined, so that callgrind can be told to count this function alone.
[[gnu::noinline]] void measure(benchmark::State& state, const Post& post, const Exchange& exchange) {
  while (state.KeepRunning())
    benchmark::DoNotOptimize(exchange(post));
}

void register_row(const std::string& row, const std::string& origin, const std::vector<Contestant>& contestants) {
  const Shared<Post> post([=] {
    check(row, origin, contestants);
    return std::make_unique<Post>(make_post(origin, "/stt"));
  });
  for (const Contestant& contestant : contestants) {
    benchmark::RegisterBenchmark((row + "/" + contestant.name).c_str(),
                                 [post, contestant](auto& state) { measure(state, post(), contestant.exchange); })
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
  }
}

using CurlExchange = std::string (*)(const Post&, const std::string&);

Contestant curl(const char* name, const std::string& trusted, CurlExchange exchange = post_with_curl) {
  return {name, [trusted, exchange](const Post& post) { return exchange(post, trusted); }};
}

}  // namespace

void register_exchanges(const Services& services) {
  register_row("exchange_plain", services.plain,
               {{"plugin", post_with_plugin},
                curl("limit", ""),
                curl("curl_contract", "", post_step_by_step),
                {"sockets", post_with_sockets}});
  register_row("exchange_tls", services.tls,
               {{"plugin", post_with_plugin},
                curl("limit", services.authority),
                curl("curl_contract", services.authority, post_step_by_step),
                curl("curl_bundle", services.bundle)});
}

}  // namespace bench

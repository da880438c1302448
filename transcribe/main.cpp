// zel-transcribe: recordings or piped live audio of a voice room's members, as text.
#include <cstdio>
#include <exception>

#include "json_text.h"
#include "options.h"
#include "transcriber.h"

namespace {

constexpr int kFailure = 1;
constexpr int kUsage = 2;

int complain(const std::exception& error, int status) {
  std::fprintf(stderr, "zel-transcribe: %s\n", zel::transcribe::printable(error.what()).c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace zel::transcribe;
  try {
    const Options options = parse_options(argc, argv);
    if (options.help_shown) return 0;
    const Summary summary = run(options, open_sources(options));
    std::fputs(format_summary(summary).c_str(), stderr);
    if (options.stats) {
      std::fputs(format_stats(summary, options.format).c_str(), options.format == Format::kText ? stderr : stdout);
    }
    return succeeded(summary) ? 0 : kFailure;
  } catch (const UsageError& error) {
    return complain(error, kUsage);
  } catch (const AudioError& error) {
    return complain(error, kUsage);
  } catch (const std::exception& error) {
    return complain(error, kFailure);
  }
}

#include "options.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <cctype>
#include <fstream>
#include <string_view>

#include "embedded_service.h"

namespace zel::transcribe {
namespace {

constexpr std::size_t kMaxClientId = 511;
constexpr std::size_t kMaxToken = 504;
constexpr std::size_t kMaxUrl = 1023;
constexpr std::array kLanguages{"ja-JP", "en-US", "zh-CN"};  // by ZelRtcSpeechToTextLanguage

struct Arguments {
  std::vector<std::string> members;
  std::vector<std::string> languages;
  std::string token_file;
};

void require(bool condition, const std::string& reason) {
  if (!condition) throw UsageError(reason);
}

bool has_control(std::string_view text) {
  return std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; });
}

ZelRtcSpeechToTextLanguage parse_language(const std::string& name) {
  const auto found = std::find(kLanguages.begin(), kLanguages.end(), name);
  require(found != kLanguages.end(), "--language: '" + name + "' is none of ja-JP, en-US and zh-CN");
  return static_cast<ZelRtcSpeechToTextLanguage>(found - kLanguages.begin());
}

MemberOptions* find(Options& options, const std::string& client_id) {
  const auto found = std::find_if(options.members.begin(), options.members.end(),
                                  [&](const MemberOptions& member) { return member.client_id == client_id; });
  return found != options.members.end() ? &*found : nullptr;
}

void add_source(Options& options, const std::string& argument) {
  const std::size_t equals = argument.find('=');
  require(equals != std::string::npos, "'" + argument + "': MEMBER=FILE is needed");
  const std::string client_id = argument.substr(0, equals);
  const std::string source = argument.substr(equals + 1);
  require(!client_id.empty(), "'" + argument + "': the member before '=' is missing");
  require(!source.empty(), "'" + argument + "': the file behind '=' is missing");
  require(client_id.size() <= kMaxClientId, "'" + client_id.substr(0, 20) + "...': a member has at most 511 bytes");
  require(!has_control(client_id), "a member's name holds control characters");
  MemberOptions* member = find(options, client_id);
  if (member == nullptr) member = &options.members.emplace_back(MemberOptions{client_id, {}});
  member->sources.push_back(source);
}

void check_members(const Options& options) {
  require(options.members.size() <= kMaxMembers, "more than " + std::to_string(kMaxMembers) + " members");
  std::ptrdiff_t live = 0;
  for (const MemberOptions& member : options.members)
    live += std::count(member.sources.begin(), member.sources.end(), kStandardInput);
  require(live <= 1, "only one member can have standard input");
}

// General languages first, so that the order of the arguments does not matter.
void set_languages(Options& options, const std::vector<std::string>& languages) {
  for (const std::string& language : languages) {
    if (language.find('=') != std::string::npos) continue;
    for (MemberOptions& member : options.members)
      member.language = parse_language(language);
  }
  for (const std::string& language : languages) {
    const std::size_t equals = language.rfind('=');
    if (equals == std::string::npos) continue;
    MemberOptions* member = find(options, language.substr(0, equals));
    require(member != nullptr, "--language: there is no member '" + language.substr(0, equals) + "'");
    member->language = parse_language(language.substr(equals + 1));
  }
}

std::string read_token(const std::string& path) {
  std::ifstream file(path);
  require(file.good(), "--token-file: " + path + " cannot be read");
  std::string line;
  std::getline(file, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  require(!line.empty(), "--token-file: the first line of " + path + " holds no token");
  return line;
}

void check_embedded(const Options& options) {
  for (const MemberOptions& member : options.members) {
    const std::string language = language_name(member.language);
    require(embedded_service_knows(language), "--language: " + language + " needs an --endpoint that recognizes it");
  }
}

void check_endpoint(const Options& options) {
  require(options.token.size() <= kMaxToken, "the token has more than 504 characters");
  require(!has_control(options.token), "the token holds control characters");
  std::string scheme = options.endpoint.substr(0, options.endpoint.find("://"));
  std::transform(scheme.begin(), scheme.end(), scheme.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  require(scheme == "http" || scheme == "https", "--endpoint: the URL must begin with http:// or https://");
  require(options.endpoint.size() > scheme.size() + 3, "--endpoint: the URL names no host");
  const char host = options.endpoint[scheme.size() + 3];
  require(host != '/' && host != '?' && host != ':', "--endpoint: the URL names no host");
  require(!has_control(options.endpoint) && options.endpoint.find(' ') == std::string::npos,
          "--endpoint: the URL holds blanks or control characters");
  for (const MemberOptions& member : options.members) {
    const std::size_t size = options.endpoint.size() + std::string_view("?language=en-US&speaker=").size();
    require(size + member.client_id.size() <= kMaxUrl, "--endpoint: too long together with member " + member.client_id);
  }
}

void describe_service(CLI::App& app, Options& options, Arguments& arguments) {
  auto* endpoint = app.add_option("--endpoint", options.endpoint, "speech service; default: one started here, offline");
  endpoint->option_text("URL");
  auto* token = app.add_option("--token", options.token,
                               "access token for the endpoint; seen by everybody who may list processes, so better use "
                               "--token-file");
  token->needs(endpoint)->option_text("TOKEN");
  app.add_option("--token-file", arguments.token_file, "file whose first line is the token")
      ->needs(endpoint)
      ->excludes(token)
      ->option_text("FILE");
}

void describe(CLI::App& app, Options& options, Arguments& arguments) {
  app.add_option("sources", arguments.members,
                 "A member and an audio file: anything libsndfile reads; FILE.raw is headerless 16-bit 16 kHz mono, "
                 "and so is '-', standard input. A member named again speaks on a second later.")
      ->option_text("MEMBER=FILE ...");
  describe_service(app, options, arguments);
  app.add_option("--language", arguments.languages,
                 "en-US (default), ja-JP or zh-CN, for all members or one; repeatable")
      ->option_text("[MEMBER=]LANGUAGE")
      ->allow_extra_args(false);
  app.add_flag("--realtime", options.realtime,
               "play files at their own pace; default: as fast as the service keeps up");
  app.add_option("--format", options.format, "one line per text, or one JSON object; default: text")
      ->transform(CLI::Transformer(
          std::vector<std::pair<std::string, Format>>{{"text", Format::kText}, {"jsonl", Format::kJsonLines}}))
      ->option_text("text|jsonl");
  app.add_option("--bitrate", options.bitrate,
                 "of the Opus packets, 6000 to 51200 bit/s; default: 10600, with which 60 s of audio fit a request")
      ->check(CLI::Range(kMinBitrate, kMaxBitrate))
      ->option_text("BITRATE");
  app.add_flag("-v,--verbose", options.verbose, "print every report of the plug-in as it comes");
  app.add_flag("--stats", options.stats, "say at the end what became of every frame and utterance, member by member");
  app.footer(
      "Texts appear on standard output as they arrive, the summary on standard error.\n"
      "Exit status: 0 when every utterance was answered, 1 when some failed, 2 for unusable arguments or files.\n");
}

}  // namespace

const char* language_name(ZelRtcSpeechToTextLanguage language) {
  return kLanguages.at(language);
}

Options parse_options(int argc, const char* const* argv) {
  CLI::App app("Transcribes what the members of a voice room say.", "zel-transcribe");
  Options options;
  Arguments arguments;
  describe(app, options, arguments);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success& help) {
    app.exit(help);
    options.help_shown = true;
    return options;
  } catch (const CLI::ExtrasError&) {
    // What stands behind '=' may be a token.
    std::string names;
    for (const std::string& option : app.remaining())
      names += " " + option.substr(0, option.find('='));
    throw UsageError("unknown option:" + names);
  } catch (const CLI::ParseError& error) {
    throw UsageError(error.what());
  }
  require(!arguments.members.empty(), "at least one MEMBER=FILE is needed");
  for (const std::string& argument : arguments.members)
    add_source(options, argument);
  check_members(options);
  set_languages(options, arguments.languages);
  if (!arguments.token_file.empty()) options.token = read_token(arguments.token_file);
  if (app.count("--endpoint") > 0) {
    check_endpoint(options);
  } else {
    check_embedded(options);
  }
  return options;
}

}  // namespace zel::transcribe

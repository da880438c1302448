// What a scripted server does to its connections, as data; packed into text it goes to a server in another process.
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kit {

// The certificate that a server shows.
enum class Identity {
  kTrusted,     // 127.0.0.1 and localhost, signed by the test authority
  kOtherHost,   // another host's, signed by the test authority
  kExpired,     // out of date, signed by the test authority
  kNotYet,      // good from tomorrow on, signed by the test authority
  kSelfSigned,  // signed by itself
  kStranger,    // signed by an authority that nobody knows
  kOldTls,      // as kTrusted, but speaks TLS 1.0 only
  kAsksBack,    // as kTrusted, but wants a certificate of the client
};

// What a connection does next. After the last step, and when the client has gone, the connection is closed.
struct Step {
  enum class Kind {
    kReadRequest,  // head and the body that its Content-Length announces
    kReadHead,     // head only
    kReadSome,     // whatever comes first; not recorded
    kSend,         // the text
    kSendPlain,    // the text, past TLS
    kFlood,        // the text, again and again until the client has gone
    kTrickle,      // the same byte by byte
    kSip,          // takes a few bytes now and then until the client has gone
    kStall,        // nothing until Release or the client has gone
    kTls,          // server side of a TLS handshake
    kReset,        // close with a TCP reset
    kDrop,         // end the stream without a TLS farewell
  };

  Kind kind;
  std::string text = {};
  Identity identity = Identity::kTrusted;
};

using Script = std::vector<Step>;

// The steps by name: ReadRequest(), Send(text) and so on.
template <Step::Kind kKind>
struct StepMaker {
  Step operator()(std::string text = {}) const { return {kKind, std::move(text)}; }
};
inline constexpr StepMaker<Step::Kind::kReadRequest> ReadRequest;
inline constexpr StepMaker<Step::Kind::kReadHead> ReadHead;
inline constexpr StepMaker<Step::Kind::kReadSome> ReadSome;
inline constexpr StepMaker<Step::Kind::kSend> Send;
inline constexpr StepMaker<Step::Kind::kSendPlain> SendPlain;
inline constexpr StepMaker<Step::Kind::kFlood> Flood;
inline constexpr StepMaker<Step::Kind::kTrickle> Trickle;
inline constexpr StepMaker<Step::Kind::kSip> Sip;
inline constexpr StepMaker<Step::Kind::kStall> Stall;
inline constexpr StepMaker<Step::Kind::kReset> Reset;
inline constexpr StepMaker<Step::Kind::kDrop> Drop;
inline Step Tls(Identity identity = Identity::kTrusted) {
  return {Step::Kind::kTls, {}, identity};
}

// A reply with a Content-Length; `headers` are whole lines.
std::string Reply(std::string_view status, std::string_view body, std::string_view headers = "");

// Six digits that tell one request, head and body, from another.
std::string RequestHash(std::string_view request);

// Texts as one text, each behind its length, and back; a text that was not made so gives as many as can be read.
std::string Pack(const std::vector<std::string>& texts);
std::vector<std::string> Unpack(const std::string& packed);
std::string PackScripts(const std::vector<Script>& scripts);
std::vector<Script> UnpackScripts(const std::string& packed);

}  // namespace kit

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

// The usual steps by name.
inline Step ReadRequest() {
  return {Step::Kind::kReadRequest};
}
inline Step ReadHead() {
  return {Step::Kind::kReadHead};
}
inline Step ReadSome() {
  return {Step::Kind::kReadSome};
}
inline Step Send(std::string text) {
  return {Step::Kind::kSend, std::move(text)};
}
inline Step SendPlain(std::string text) {
  return {Step::Kind::kSendPlain, std::move(text)};
}
inline Step Flood(std::string text) {
  return {Step::Kind::kFlood, std::move(text)};
}
inline Step Trickle(std::string text) {
  return {Step::Kind::kTrickle, std::move(text)};
}
inline Step Sip() {
  return {Step::Kind::kSip};
}
inline Step Stall() {
  return {Step::Kind::kStall};
}
inline Step Tls(Identity identity = Identity::kTrusted) {
  return {Step::Kind::kTls, {}, identity};
}
inline Step Drop() {
  return {Step::Kind::kDrop};
}
inline Step Reset() {
  return {Step::Kind::kReset};
}

// A reply with a Content-Length; `headers` are whole lines.
std::string Reply(std::string_view status, std::string_view body, std::string_view headers = "");

// Texts as one text, each behind its length, and back; a text that was not made so gives as many as can be read.
std::string Pack(const std::vector<std::string>& texts);
std::vector<std::string> Unpack(std::string_view packed);
std::string PackScripts(const std::vector<Script>& scripts);
std::vector<Script> UnpackScripts(std::string_view packed);

}  // namespace kit

// One exchange with a speech service over libcurl: a POST of an utterance, the reply read to its end, the connection
// closed. Nothing is kept from one exchange to the next.
//
// Thread rule: callable from any thread once libcurl is initialized. Errors: std::runtime_error when an exchange fails.
#pragma once

#include <span>
#include <string>

namespace bench {

/** What is posted. */
struct Post {
  std::string origin;  ///< "http://127.0.0.1:port"
  std::string target;
  std::string authorization;
  std::span<const unsigned char> body;
};

/** Longest reply, bytes, terminator included: of the plug-in's worker. */
inline constexpr std::size_t kReplyCapacity = 1232;
/** Of each phase of an exchange; never reached. */
inline constexpr long kTimeoutSeconds = 20;

/** libcurl's easy interface: a fresh handle, with the options that the plug-in's promises call for, performed and
 * cleaned up. It does not count the head's bytes, tell phases of the exchange apart or keep SIGPIPE from the process.
 * `trusted`: a PEM file; empty: no TLS. The reply's body. */
std::string post_with_curl(const Post& post, const std::string& trusted);

/** The same options through libcurl's multi interface, which alone lets each phase of an exchange end at its own
 * deadline, with the callbacks that tell phases apart and with SIGPIPE kept from the process: what the plug-in's
 * promises cost in libcurl. The callbacks do nothing else. */
std::string post_step_by_step(const Post& post, const std::string& trusted);

}  // namespace bench

// One exchange with a speech service, as each contestant makes it: a POST of an utterance, the reply read to its end,
// the connection closed. Nothing is kept from one exchange to the next.
//
// Thread rule: callable from any thread. Errors: std::runtime_error when an exchange fails, which ends the benchmark.
#pragma once

#include <span>
#include <string>

namespace bench {

/** What all contestants post. */
struct Post {
  std::string origin;  ///< "http://127.0.0.1:port"
  std::string target;
  std::string authorization;
  std::span<const unsigned char> body;
};

/** What a contestant trusts besides what it brings along. */
struct Trust {
  std::string file;  ///< PEM; empty: no TLS
};

/** The plug-in's executor, on the calling thread, called as its worker calls it; its trust comes from the process's
 * environment and is read once. Each result is the reply's body. */
std::string post_with_plugin(const Post& post);

/** libcurl's easy interface: a fresh handle, with the options that the plug-in's promises call for, performed and cleaned
 * up. It does not count the head's bytes, tell phases of the exchange apart or keep SIGPIPE from the process. */
std::string post_with_curl(const Post& post, const Trust& trust);

/** The same options through libcurl's multi interface, which alone lets each phase of an exchange end at its own
 * deadline, with the callbacks that tell phases apart: what the plug-in's promises cost in libcurl. The callbacks do
 * nothing else. */
std::string post_step_by_step(const Post& post, const Trust& trust);

/** Socket, connect, one send, receive up to the announced length, close: what the system itself takes. Plain only. */
std::string post_with_sockets(const Post& post);

}  // namespace bench

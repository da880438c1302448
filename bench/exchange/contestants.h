// An exchange with a speech service (curl_post.h) as others than libcurl make it.
//
// Thread rule: callable from any thread. Errors: std::runtime_error when an exchange fails, which ends the benchmark.
#pragma once

#include "curl_post.h"

namespace bench {

/** The plug-in's executor, on the calling thread, called as its worker calls it; its trust comes from the process's
 * environment and is read once. Each result is the reply's body. */
std::string post_with_plugin(const Post& post);

/** Socket, connect, one send, receive up to the announced length, close: what the system itself takes. Plain only. */
std::string post_with_sockets(const Post& post);

}  // namespace bench

// The benchmarks of this program. Each function registers its rows; what they need is made when the
// first of their benchmarks runs.
#pragma once

#include <string>

namespace bench {

/** Where the services of the process are, and what to trust for the TLS one. */
struct Services {
  std::string plain;      ///< origin
  std::string tls;        ///< origin
  std::string authority;  ///< PEM file with nothing but the TLS service's authority
  std::string bundle;     ///< PEM file with that and the system's certificates
};

/** exchange_plain and exchange_tls. Checks before anything is measured that all contestants send and receive alike. */
void register_exchanges(const Services& services);
/** hand_over. */
void register_hand_over();
/** last_words. */
void register_last_words(const Services& services);

}  // namespace bench

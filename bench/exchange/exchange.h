// The benchmarks of this program. Each function registers its rows once what they need stands.
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

/** exchange_plain and exchange_tls. Checks first that all contestants send and receive the same. */
void register_exchanges(const Services& services);
/** hand_over. */
void register_hand_over();
/** last_words. */
void register_last_words(const Services& services);

}  // namespace bench

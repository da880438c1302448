// A speech service on loopback that answers every request at once with the same reply, in a process of its own: what it
// does costs the measured process nothing but the waiting.
//
// One connection after the other, one exchange each; the service ends the connection first, so that the client's ports
// do not run out. A request whose target begins with "/echo" gets its own head as the reply instead.
//
// Thread rule: construct before the process has threads. Errors: constructors throw std::runtime_error.
#pragma once

#include <sys/types.h>

#include <string>

namespace bench {

/** A certificate authority and a server's identity signed by it, as PEM text; valid for 127.0.0.1, for a day. */
struct Identity {
  std::string authority;
  std::string certificate;
  std::string key;
};
Identity make_identity();

class LoopbackService {
 public:
  /** `identity`: of a TLS service; null for a plain one. */
  explicit LoopbackService(const std::string& reply, const Identity* identity = nullptr);
  ~LoopbackService();
  LoopbackService(const LoopbackService&) = delete;
  LoopbackService& operator=(const LoopbackService&) = delete;

  unsigned short port() const { return port_; }
  /** "http://127.0.0.1:port" or "https://...". */
  const std::string& origin() const { return origin_; }

 private:
  std::string origin_;
  unsigned short port_ = 0;
  pid_t process_ = -1;
};

/** A file with a text in it, as long as the object lives. */
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& text);
  ~TemporaryFile();
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

}  // namespace bench

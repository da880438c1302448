#include "control_link.h"

#include <algorithm>
#include <cstdlib>

#include "http_script.h"

namespace kit {
namespace {

constexpr std::size_t kLengthDigits = 12;

}  // namespace

bool SendTexts(ControlSocket socket, const std::vector<std::string>& texts) {
  const std::string packed = Pack(texts);
  const std::string digits = std::to_string(packed.size());
  const std::string message = std::string(kLengthDigits - digits.size(), '0') + digits + packed;
  for (std::size_t sent = 0; sent < message.size();) {
    const auto part = static_cast<int>(std::min<std::size_t>(message.size() - sent, 1 << 20));
    const auto count = send(socket, message.data() + sent, static_cast<unsigned>(part), 0);
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::optional<std::vector<std::string>> ReceiveTexts(ControlSocket socket) {
  const auto receive = [socket](std::size_t size) -> std::optional<std::string> {
    std::string bytes(size, '\0');
    for (std::size_t got = 0; got < size;) {
      const auto part = static_cast<int>(std::min<std::size_t>(size - got, 1 << 20));
      const auto count = recv(socket, bytes.data() + got, static_cast<unsigned>(part), 0);
      if (count <= 0) return std::nullopt;
      got += static_cast<std::size_t>(count);
    }
    return bytes;
  };
  const std::optional<std::string> length = receive(kLengthDigits);
  if (!length) return std::nullopt;
  const std::optional<std::string> packed = receive(std::strtoul(length->c_str(), nullptr, 10));
  if (!packed) return std::nullopt;
  return Unpack(*packed);
}

}  // namespace kit

#include "http_script.h"

#include <algorithm>
#include <functional>
#include <sstream>

namespace kit {

std::string Reply(std::string_view status, std::string_view body, std::string_view headers) {
  std::string reply = "HTTP/1.1 ";
  reply.append(status).append("\r\n").append(headers);
  reply.append("Connection: close\r\n");  // the script ends, and who keeps connections must not use this one again
  return reply.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n\r\n").append(body);
}

std::string RequestHash(std::string_view request) {
  constexpr std::size_t kDigits = 6;
  const std::string digits = std::string(kDigits, '0') + std::to_string(std::hash<std::string_view>()(request));
  return digits.substr(digits.size() - kDigits);
}

std::string Pack(const std::vector<std::string>& texts) {
  std::string packed;
  for (const std::string& text : texts)
    packed.append(std::to_string(text.size())).append(":").append(text);
  return packed;
}

std::vector<std::string> Unpack(const std::string& packed) {
  std::vector<std::string> texts;
  std::istringstream stream(packed);
  for (std::size_t size = 0; stream >> size && stream.ignore();) {
    texts.emplace_back(std::min(size, packed.size()), '\0');
    stream.read(texts.back().data(), static_cast<std::streamsize>(texts.back().size()));
  }
  return texts;
}

std::string PackScripts(const std::vector<Script>& scripts) {
  std::vector<std::string> packed;
  for (const Script& script : scripts) {
    std::vector<std::string> steps;
    for (const auto& [kind, text, identity] : script)
      steps.push_back(Pack({std::to_string(static_cast<int>(kind)), text, std::to_string(static_cast<int>(identity))}));
    packed.push_back(Pack(steps));
  }
  return Pack(packed);
}

std::vector<Script> UnpackScripts(const std::string& packed) {
  std::vector<Script> scripts;
  for (const std::string& script : Unpack(packed)) {
    scripts.emplace_back();
    for (const std::string& step : Unpack(script)) {
      const std::vector<std::string> fields = Unpack(step);
      scripts.back().push_back({static_cast<Step::Kind>(std::stoi(fields.at(0))), fields.at(1),
                                static_cast<Identity>(std::stoi(fields.at(2)))});
    }
  }
  return scripts;
}

}  // namespace kit

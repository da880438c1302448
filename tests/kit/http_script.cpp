#include "http_script.h"

#include <charconv>

namespace kit {

std::string Reply(std::string_view status, std::string_view body, std::string_view headers) {
  std::string reply = "HTTP/1.1 ";
  reply.append(status).append("\r\n").append(headers);
  reply.append("Connection: close\r\n");  // the script ends, and who keeps connections must not use this one again
  return reply.append("Content-Length: ").append(std::to_string(body.size())).append("\r\n\r\n").append(body);
}

std::string Pack(const std::vector<std::string>& texts) {
  std::string packed;
  for (const std::string& text : texts)
    packed.append(std::to_string(text.size())).append(":").append(text);
  return packed;
}

std::vector<std::string> Unpack(std::string_view packed) {
  std::vector<std::string> texts;
  while (!packed.empty()) {
    std::size_t size = 0;
    const char* end = packed.data() + packed.size();
    const auto [colon, error] = std::from_chars(packed.data(), end, size);
    if (error != std::errc() || colon == end || size > static_cast<std::size_t>(end - colon - 1)) break;
    texts.emplace_back(colon + 1, size);
    packed = std::string_view(colon + 1 + size, static_cast<std::size_t>(end - colon - 1) - size);
  }
  return texts;
}

std::string PackScripts(const std::vector<Script>& scripts) {
  std::vector<std::string> packed;
  for (const Script& script : scripts) {
    std::vector<std::string> fields;
    for (const Step& step : script) {
      fields.push_back(std::to_string(static_cast<int>(step.kind)));
      fields.push_back(step.text);
      fields.push_back(std::to_string(static_cast<int>(step.identity)));
    }
    packed.push_back(Pack(fields));
  }
  return Pack(packed);
}

std::vector<Script> UnpackScripts(std::string_view packed) {
  std::vector<Script> scripts;
  for (const std::string& one : Unpack(packed)) {
    const std::vector<std::string> fields = Unpack(one);
    Script& script = scripts.emplace_back();
    for (std::size_t i = 0; i + 2 < fields.size(); i += 3) {
      script.push_back({static_cast<Step::Kind>(std::stoi(fields[i])), fields[i + 1],
                        static_cast<Identity>(std::stoi(fields[i + 2]))});
    }
  }
  return scripts;
}

}  // namespace kit

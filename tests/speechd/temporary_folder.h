// A folder that goes with the test.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace speechd_test {

class TemporaryFolder {
 public:
  TemporaryFolder() {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("no temporary folder");
  }
  ~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;

  std::string File(const std::string& name) const { return path_ + "/" + name; }
  std::string File(const std::string& name, const std::string& content) const {
    std::ofstream(File(name), std::ios::binary) << content;
    return File(name);
  }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "zel-test-XXXXXX";
};

inline std::string ReadFile(const std::string& path) {
  std::ostringstream content;
  content << std::ifstream(path, std::ios::binary).rdbuf();
  return content.str();
}

}  // namespace speechd_test

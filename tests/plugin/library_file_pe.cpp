#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <windows.h>

#include <fstream>
#include <iterator>

#include "library_file.h"

namespace {

// The image as the loader lays it out, without running anything of it.
class PeFile {
 public:
  explicit PeFile(const char* path)
      : module_(LoadLibraryExA(path, nullptr, DONT_RESOLVE_DLL_REFERENCES)),
        base_(reinterpret_cast<const char*>(module_)) {
    if (module_ == nullptr) throw std::runtime_error("cannot map the library");
  }
  ~PeFile() { FreeLibrary(module_); }
  PeFile(const PeFile&) = delete;
  PeFile& operator=(const PeFile&) = delete;

  template <typename Record>
  const Record* at(DWORD address) const {
    return reinterpret_cast<const Record*>(base_ + address);
  }
  const IMAGE_OPTIONAL_HEADER64& header() const {
    const auto start = static_cast<DWORD>(at<IMAGE_DOS_HEADER>(0)->e_lfanew);
    return at<IMAGE_NT_HEADERS64>(start)->OptionalHeader;
  }
  DWORD directory(int entry) const { return header().DataDirectory[entry].VirtualAddress; }

 private:
  HMODULE module_;
  const char* base_;
};

TEST(PluginFile, NeedsNoMoreThanTheSystem) {
  const PeFile file(ZEL_PLUGIN_FILE);
  std::vector<std::string> names;
  for (const auto* entry = file.at<IMAGE_IMPORT_DESCRIPTOR>(file.directory(IMAGE_DIRECTORY_ENTRY_IMPORT));
       entry->Name != 0; ++entry) {
    names.emplace_back(file.at<char>(entry->Name));
    for (char& c : names.back())
      c = static_cast<char>(std::toupper(c));
  }
  EXPECT_THAT(names, testing::Contains("WINHTTP.DLL"));
  for (const std::string& name : names) {
    const bool runtime = name == "MSVCRT.DLL" || name == "UCRTBASE.DLL" || name.starts_with("API-MS-WIN-CRT-");
    EXPECT_TRUE(runtime || name == "KERNEL32.DLL" || name == "WINHTTP.DLL") << name;
  }
}

TEST(PluginFile, IsHardenedAndTellsItsVersion) {
  constexpr unsigned kFlags = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT |
                              IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA;
  EXPECT_EQ(PeFile(ZEL_PLUGIN_FILE).header().DllCharacteristics & kFlags, kFlags);

  std::vector<char> info(GetFileVersionInfoSizeA(ZEL_PLUGIN_FILE, nullptr));
  ASSERT_TRUE(GetFileVersionInfoA(ZEL_PLUGIN_FILE, 0, static_cast<DWORD>(info.size()), info.data()));
  void* fixed = nullptr;
  UINT size = 0;
  ASSERT_TRUE(VerQueryValueA(info.data(), "\\", &fixed, &size));
  const auto* version = static_cast<const VS_FIXEDFILEINFO*>(fixed);
  EXPECT_EQ(version->dwFileVersionMS, 0x0000'0001u);
  EXPECT_EQ(version->dwFileVersionLS >> 16, 20u);
}

}  // namespace

std::vector<std::string> exported_names(const char* path) {
  const PeFile file(path);
  const auto* exports = file.at<IMAGE_EXPORT_DIRECTORY>(file.directory(IMAGE_DIRECTORY_ENTRY_EXPORT));
  const auto* addresses = file.at<DWORD>(exports->AddressOfNames);
  std::vector<std::string> names;
  for (DWORD i = 0; i < exports->NumberOfNames; ++i)
    names.emplace_back(file.at<char>(addresses[i]));
  if (exports->NumberOfFunctions != exports->NumberOfNames) names.emplace_back("(a function without a name)");
  return names;
}

#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>

#include "library_file.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// An ELF file's dynamic section, as the loader would read it.
class ElfFile {
 public:
  explicit ElfFile(const char* path) {
    std::ifstream file(path, std::ios::binary);
    bytes_.assign(std::istreambuf_iterator<char>(file), {});
    if (bytes_.compare(0, SELFMAG, ELFMAG) != 0) throw std::runtime_error("not an ELF file");
    const auto header = at<Elf64_Ehdr>(0);
    for (std::size_t i = 0; i < header.e_shnum; ++i)
      sections_.push_back(at<Elf64_Shdr>(header.e_shoff + i * header.e_shentsize));
  }

  // Symbols that other modules can see.
  std::vector<std::string> exports() const {
    std::vector<std::string> names;
    for_each<Elf64_Sym>(SHT_DYNSYM, [&](const Elf64_Sym& symbol, std::uint64_t strings) {
      if (symbol.st_shndx != SHN_UNDEF && ELF64_ST_BIND(symbol.st_info) != STB_LOCAL)
        names.emplace_back(bytes_.c_str() + strings + symbol.st_name);
    });
    return names;
  }
  // Strings of the dynamic section's entries with that tag.
  std::vector<std::string> dynamic(std::int64_t tag) const {
    std::vector<std::string> names;
    for_each<Elf64_Dyn>(SHT_DYNAMIC, [&](const Elf64_Dyn& entry, std::uint64_t strings) {
      if (entry.d_tag == tag) names.emplace_back(bytes_.c_str() + strings + entry.d_un.d_val);
    });
    return names;
  }

 private:
  template <typename Record>
  Record at(std::uint64_t offset) const {
    Record record;
    std::memcpy(&record, bytes_.substr(offset, sizeof record).data(), sizeof record);
    return record;
  }
  template <typename Record, typename Visit>
  void for_each(std::uint32_t type, Visit visit) const {
    for (const Elf64_Shdr& section : sections_) {
      if (section.sh_type != type) continue;
      for (std::uint64_t i = 0; i < section.sh_size; i += sizeof(Record))
        visit(at<Record>(section.sh_offset + i), sections_.at(section.sh_link).sh_offset);
    }
  }

  std::string bytes_;
  std::vector<Elf64_Shdr> sections_;
};

TEST(PluginFile, NeedsNoMoreThanItsLibraries) {
  const ElfFile file(ZEL_PLUGIN_FILE);
  EXPECT_THAT(file.dynamic(DT_SONAME), testing::ElementsAre("libzel_rtc_speech_to_text.so.0"));
  const std::string own = R"((libc|libogg|libcurl|libssl|libcrypto)\.so\.[0-9]+|ld-linux-x86-64\.so\.2)";
  const std::string sanitizers = R"(|lib(asan|ubsan|tsan)\.so\.[0-9]+)";
  EXPECT_THAT(file.dynamic(DT_NEEDED), testing::Each(testing::MatchesRegex(kSanitized ? own + sanitizers : own)));
  EXPECT_THAT(file.dynamic(DT_RUNPATH), testing::IsEmpty());
}

}  // namespace

std::vector<std::string> exported_names(const char* path) {
  return ElfFile(path).exports();
}

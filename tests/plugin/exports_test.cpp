// What the library's file shows and needs, and what it answers before anything is installed.
#include <elf.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "loaded_plugin.h"

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

TEST(PluginFile, ExportsTheSeventeenFunctionsAndNothingElse) {
  const std::string library = "zelRtcSpeechToText_", session = "zelRtcSpeechToTextSession_";
  EXPECT_THAT(
      ElfFile(ZEL_PLUGIN_FILE).exports(),
      testing::UnorderedElementsAre(
          library + "SetBaseRtcBridgeInterface", library + "SetDefaultConfig", library + "CalculateWorkSize",
          library + "Initialize", library + "Finalize", library + "IsInitialized", library + "GetLibraryVersionString",
          library + "SetUserMallocFunction", library + "SetUserFreeFunction", session + "SetDefaultConfig",
          session + "CalculateWorkSize", session + "Create", session + "Destroy", session + "EnableMember",
          session + "IsEnabledMember", session + "SetLanguage", session + "GetLanguage"));
}

TEST(PluginFile, NeedsNoMoreThanItsLibraries) {
  const ElfFile file(ZEL_PLUGIN_FILE);
  EXPECT_THAT(file.dynamic(DT_SONAME), testing::ElementsAre("libzel_rtc_speech_to_text.so.0"));
  const std::string own = R"((libc|libogg|libcurl|libssl|libcrypto)\.so\.[0-9]+|ld-linux-x86-64\.so\.2)";
  const std::string sanitizers = R"(|lib(asan|ubsan|tsan)\.so\.[0-9]+)";
  EXPECT_THAT(file.dynamic(DT_NEEDED), testing::Each(testing::MatchesRegex(kSanitized ? own + sanitizers : own)));
  EXPECT_THAT(file.dynamic(DT_RUNPATH), testing::IsEmpty());
}

TEST(LoadedPlugin, AnswersWithoutABridge) {
  const LoadedPlugin plugin;
  EXPECT_EQ(plugin.call<std::uint32_t>("_IsInitialized"), 0U);
  const auto* banner = plugin.call<const char*>("_GetLibraryVersionString");
  EXPECT_THAT(banner, testing::MatchesRegex("ZEL Rtc SpeechToText/PCx64 Ver\\.0\\.1\\.20 Build:"
                                            "(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 123][0-9] [0-9]{4} "
                                            "[0-9]{2}:[0-9]{2}:[0-9]{2}\n"));
  EXPECT_EQ(banner[-1], '\n');
  EXPECT_EQ(plugin.call<const char*>("_GetLibraryVersionString"), banner);

  struct {
    const char* version;
    std::uint32_t reserved, padding, behind;
  } config = {nullptr, 0, 0, 0xEEEEEEEE};
  plugin.call<void>("_SetDefaultConfig", static_cast<void*>(&config));
  EXPECT_STREQ(config.version, "0.1.20");
  EXPECT_EQ(config.reserved, 16U);
  EXPECT_EQ(config.behind, 0xEEEEEEEE);
  struct {
    std::uint16_t messages;
    std::uint32_t text_size, reserved, members, behind;
  } session = {0, 0, 0, 0, 0xEEEEEEEE};
  plugin.call<void>("Session_SetDefaultConfig", static_cast<void*>(&session));
  EXPECT_EQ(session.messages, 16);
  EXPECT_EQ(session.text_size, 1200U);
  EXPECT_EQ(session.reserved, 20000U);
  EXPECT_EQ(session.members, 16U);
  EXPECT_EQ(session.behind, 0xEEEEEEEE);
}

TEST(LoadedPlugin, EverythingElseFailsWithoutABridge) {
  const LoadedPlugin plugin;
  void* const none = nullptr;
  const char* const id = "alice";
  EXPECT_EQ(plugin.call<std::int32_t>("_CalculateWorkSize", none), -1);
  EXPECT_EQ(plugin.call<std::uint32_t>("_Initialize", none, none, 0), 0U);
  plugin.call<void>("_Finalize");
  plugin.call<void>("_SetUserMallocFunction", none, none);
  plugin.call<void>("_SetUserFreeFunction", none, none);
  EXPECT_EQ(plugin.call<std::int32_t>("Session_CalculateWorkSize", none), -1);
  EXPECT_EQ(plugin.call<void*>("Session_Create", none, none, 0), nullptr);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_Destroy", none), 0U);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_EnableMember", none, id, 1U), 0U);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_IsEnabledMember", none, id), 0U);
  EXPECT_EQ(plugin.call<std::uint32_t>("Session_SetLanguage", none, id, 1U), 0U);
  EXPECT_EQ(plugin.call<std::int32_t>("Session_GetLanguage", none, id), -1);
  EXPECT_EQ(plugin.call<std::uint32_t>("_IsInitialized"), 0U);
}

}  // namespace

#include <algorithm>
#include <sstream>

#include "session_rig.h"

namespace {

const std::string kQueue = "0 E2022102522:Please increase ZelRtcSpeechToTextSessionConfig::max_queueing_messages.|";
const std::string kText = "0 E2022102523:Please increase ZelRtcSpeechToTextSessionConfig::max_text_message_size.|";
const std::string kMembers =
    "0 E2022102525:Please increase ZelRtcSpeechToTextSessionConfig::max_identifiable_members.|";

TEST(Session, RefusesUnusableConfigurations) {
  LibraryRig library;
  WorkArea area(1000);
  const struct {
    ZelRtcSpeechToTextSessionConfig config;
    Reports reports;
  } cases[] = {{{3, 0, 0, 0}, {kQueue + "3", kText + "0", kMembers + "0"}},
               {{4, 1, 0, 0}, {kMembers + "0"}},
               {{65535, 0xFFFFFFFF, 0, 1}, {}},
               {{4, 1, 0, 0x7FFFFFFF}, {}},
               {{4, 1, 0, 4000}, {}}};
  for (const auto& test : cases) {
    SCOPED_TRACE("case " + std::to_string(&test - cases));
    EXPECT_EQ(zelRtcSpeechToTextSession_CalculateWorkSize(&test.config), -1);
    EXPECT_EQ(library.host.TakeReports(), test.reports);
    EXPECT_EQ(zelRtcSpeechToTextSession_Create(&test.config, area.data(), area.size()), nullptr);
    EXPECT_EQ(library.host.TakeReports(), test.reports);
  }
  EXPECT_TRUE(area.untouched());
}

TEST(Session, CarvesItsPartsInOrderAtEveryMisalignment) {
  LibraryRig library;
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    SessionRig probe(1);
    library.host.ForgetCalls();
    SessionRig rig(2, misalignment);
    const Blocks& carved = library.host.carvings[0];
    const auto recognizer = carved.at(4);
    const auto node = std::pair{std::uint64_t{24}, 8u};
    EXPECT_EQ(carved, (Blocks{{40, 8}, {sizeof(SttSessionBody), 8}, {72, 1}, node, recognizer, node, recognizer}));
    EXPECT_EQ(recognizer.second, 1u);
    EXPECT_EQ(std::ranges::count(library.host.calculations, carved), 2);
    EXPECT_EQ(rig.session->own_work, nullptr);
    EXPECT_EQ(rig.session->registry_link.item, rig.session);
    EXPECT_EQ(probe.session->registry_link.next, &rig.session->registry_link);
    for (const int32_t size : {rig.area.size() - 1, 1, -1}) {
      WorkArea small(rig.area.size());
      EXPECT_EQ(zelRtcSpeechToTextSession_Create(&rig.config, small.data(), size), nullptr);
      EXPECT_EQ(library.host.TakeReports(), Reports{"0 E2022102103 -2"});
      EXPECT_TRUE(small.untouched());
    }
    probe.Destroy();  // the first of the registry before the second
  }
}

TEST(Session, NeedsTheLibraryAndAnArea) {
  {
    ScriptedHost host;
    EXPECT_EQ(zelRtcSpeechToTextSession_Create(nullptr, nullptr, 0), nullptr);
    EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(nullptr), 0u);
    EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022102100 -6", "0 E2022102105 -6"}));
  }
  LibraryRig library;
  EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(nullptr), 0u);
  WorkArea area(100);
  EXPECT_EQ(zelRtcSpeechToTextSession_Create(nullptr, nullptr, 100), nullptr);
  EXPECT_EQ(zelRtcSpeechToTextSession_Create(nullptr, area.data(), 0), nullptr);
  const std::string unset = "0 E2022102101:User allocator function has not been set.";
  EXPECT_EQ(library.host.TakeReports(), (Reports{"0 E2022102104 -2", unset, unset}));
}

TEST(Session, CountsMembersAsASignedNumber) {
  LibraryRig library;
  SessionRig rig(0x80000000u);
  ASSERT_NE(rig.session, nullptr);
  EXPECT_EQ(rig.slots->AcquireRecognizer(rig.body), nullptr);
  EXPECT_EQ(library.host.Live()[kThreads], 0);
}

TEST(Session, MemberOperationsFindActiveMembers) {
  LibraryRig library;
  SessionRig rig(3);
  const ZelRtcSpeechToTextSessionHn session = rig.session;
  const auto expect_refused = [&](ZelRtcSpeechToTextSessionHn handle, const char* id, const Reports& reports) {
    EXPECT_EQ(zelRtcSpeechToTextSession_EnableMember(handle, id, 1), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_IsEnabledMember(handle, id), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_SetLanguage(handle, id, 9), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_GetLanguage(handle, id), -1);
    EXPECT_EQ(library.host.TakeReports(), reports);
  };
  const auto expect_missing = [&](const std::string& id) {
    const std::string text = ":Not found specified client(%s).|" + id;
    expect_refused(session, id.c_str(),
                   {"1 W2022102700" + text, "1 W2022110822" + text, "1 W2022102702" + text, "1 W2022102703" + text});
  };
  expect_refused(nullptr, "id", Refusals("102846 102848 102827 102828"));
  expect_refused(session, nullptr, Refusals("102702 102849 102829 102830"));
  expect_missing("");  // free recognizers carry the empty id
  SttRecognizerHn first = rig.Acquire("same"), second = rig.Acquire("same");
  expect_missing("sam");
  expect_missing("same ");
  EXPECT_EQ(zelRtcSpeechToTextSession_EnableMember(session, "same", 5), 1u);
  EXPECT_EQ(zelRtcSpeechToTextSession_IsEnabledMember(session, "same"), 5u);
  EXPECT_EQ(zelSttRecognizer_IsEnabledMember(first), 5u) << "the one acquired earlier answers";
  EXPECT_EQ(zelSttRecognizer_IsEnabledMember(second), 1u);
  EXPECT_EQ(zelRtcSpeechToTextSession_SetLanguage(session, "same", 2), 1u);
  EXPECT_EQ(zelRtcSpeechToTextSession_SetLanguage(session, "same", 3), 0u);
  EXPECT_EQ(library.host.TakeReports(), Reports{"0 E2022111425 -2"});
  EXPECT_EQ(zelRtcSpeechToTextSession_GetLanguage(session, "same"), 2);
  EXPECT_EQ(rig.Release(first), 1u);
  EXPECT_EQ(zelRtcSpeechToTextSession_GetLanguage(session, "same"), 0) << "now the second";
  EXPECT_EQ(rig.Release(second), 1u);
  expect_missing("same");
}

// Finalization destroys what is detached, whatever stands around it, and can be repeated until nothing is attached.
TEST(Session, IsDestroyedByFinalizationUnlessItIsAttached) {
  for (unsigned pattern = 0; pattern < 8; ++pattern) {
    SCOPED_TRACE("attached: " + std::to_string(pattern));
    LibraryRig library;
    SessionRig rigs[] = {SessionRig(1), SessionRig(1), SessionRig(1)};
    std::vector<SessionRig*> attached;
    Reports refusals;
    for (SessionRig& rig : rigs) {
      const ZelRtcSpeechToTextSessionHn session = std::exchange(rig.session, nullptr);
      if ((pattern >> (&rig - rigs) & 1) == 0) continue;
      rig.slots->Attach(rig.body);
      attached.push_back(&rig);
      std::ostringstream refusal;
      refusal << "0 E2022102623:Failed to destroy this handle(0x%08x). Please detach this handle from "
              << "ZelRtcRoomSessionHn.|" << std::hex << reinterpret_cast<std::uintptr_t>(session);
      refusals.push_back(refusal.str());
    }
    zelRtcSpeechToText_Finalize();
    EXPECT_EQ(library.host.TakeReports(), refusals);
    EXPECT_EQ(zelRtcSpeechToText_IsInitialized(), attached.empty() ? 0u : 1u);
    EXPECT_EQ(library.host.Live()[kThreads], static_cast<int>(attached.size()));
    EXPECT_EQ(library.host.timer_depth, attached.empty() ? 0 : 2);
    for (SessionRig* rig : attached)
      EXPECT_EQ(rig->slots->Detach(rig->body), 1u);
    if (!attached.empty()) zelRtcSpeechToText_Finalize();
  }
}

}  // namespace

#include <algorithm>
#include <cstdlib>

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
  ZelRtcSpeechToTextSessionConfig config;
  zelRtcSpeechToTextSession_SetDefaultConfig(&config);
  EXPECT_EQ(zelRtcSpeechToTextSession_CalculateWorkSize(&config), zelRtcSpeechToTextSession_CalculateWorkSize(nullptr));
}

TEST(Session, CarvesItsPartsInOrderAtEveryMisalignment) {
  LibraryRig library;
  for (std::size_t misalignment = 0; misalignment < 8; ++misalignment) {
    SessionRig probe(1);
    library.host.ForgetCalls();
    SessionRig rig(2, misalignment);
    const Blocks& carved = library.host.carvings[0];
    const auto recognizer = carved.at(4);
    EXPECT_EQ(carved,
              (Blocks{{40, 8}, {sizeof(SttSessionBody), 8}, {72, 1}, {16, 8}, recognizer, {16, 8}, recognizer}));
    EXPECT_EQ(recognizer.second, 1u);
    EXPECT_EQ(std::ranges::count(library.host.calculations, carved), 2);
    EXPECT_EQ(rig.session->own_work, nullptr);
    EXPECT_EQ(rig.session->registry_link.item, rig.session);
    EXPECT_EQ(probe.session->registry_link.next, &rig.session->registry_link);
    EXPECT_EQ(rig.body->free_list.count, 2u);
    EXPECT_EQ(rig.body->free_list.tail->recognizer->instance->request->authorization, rig.body->authorization);

    for (const int32_t size : {rig.area.size() - 1, 1, -1}) {
      WorkArea small(rig.area.size());
      EXPECT_EQ(zelRtcSpeechToTextSession_Create(&rig.config, small.data(), size), nullptr);
      EXPECT_EQ(library.host.TakeReports(), Reports{"0 E2022102103 -2"});
      EXPECT_TRUE(small.untouched());
    }
    probe.Destroy();  // the first of the registry before the second
  }
}

TEST(Session, NeedsTheLibrary) {
  ScriptedHost host;
  EXPECT_EQ(zelRtcSpeechToTextSession_Create(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(nullptr), 0u);
  EXPECT_EQ(host.TakeReports(), (Reports{"0 E2022102100 -6", "0 E2022102105 -6"}));
}

TEST(Session, TakesItsAreaFromTheApplicationsAllocator) {
  LibraryRig library;
  const ZelRtcSpeechToTextSessionConfig config = {4, 10, 0, 2};
  WorkArea area(100);
  EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(nullptr), 0u);
  EXPECT_EQ(zelRtcSpeechToTextSession_Create(nullptr, nullptr, 100), nullptr);
  EXPECT_EQ(library.host.TakeReports(),
            (Reports{"0 E2022102104 -2", "0 E2022102101:User allocator function has not been set."}));
  zelRtcSpeechToText_SetUserMallocFunction([](void*, uint32_t size) { return std::malloc(size); }, nullptr);
  zelRtcSpeechToText_SetUserFreeFunction([](void*, void* block) { std::free(block); }, nullptr);
  ZelRtcSpeechToTextSessionHn session = zelRtcSpeechToTextSession_Create(&config, area.data(), 0);
  ASSERT_NE(session, nullptr);
  EXPECT_EQ(session->own_work, session);
  EXPECT_EQ(zelRtcSpeechToTextSession_Destroy(session), 1u);
  EXPECT_TRUE(area.untouched());
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
  const auto not_found = [](const char* identifier, const std::string& id) {
    return std::string("1 ") + identifier + ":Not found specified client(%s).|" + id;
  };
  const auto expect_missing = [&](const std::string& id) {
    EXPECT_EQ(zelRtcSpeechToTextSession_EnableMember(session, id.c_str(), 1), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_IsEnabledMember(session, id.c_str()), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_SetLanguage(session, id.c_str(), 9), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_GetLanguage(session, id.c_str()), -1);
    EXPECT_EQ(library.host.TakeReports(), (Reports{not_found("W2022102700", id), not_found("W2022110822", id),
                                                   not_found("W2022102702", id), not_found("W2022102703", id)}));
  };
  expect_missing("");  // free recognizers carry the empty id
  SttRecognizerHn first = rig.Acquire("same"), second = rig.Acquire("same");
  rig.Acquire("other");
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
  EXPECT_EQ(rig.slots->ReleaseRecognizer(rig.body, first), 1u);
  EXPECT_EQ(zelRtcSpeechToTextSession_GetLanguage(session, "same"), 0) << "now the second";
  rig.slots->ReleaseAllRecognizers(rig.body);
  expect_missing("same");

  for (const ZelRtcSpeechToTextSessionHn refused : {ZelRtcSpeechToTextSessionHn{}, session}) {
    EXPECT_EQ(zelRtcSpeechToTextSession_EnableMember(refused, nullptr, 1), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_IsEnabledMember(refused, nullptr), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_SetLanguage(refused, nullptr, 9), 0u);
    EXPECT_EQ(zelRtcSpeechToTextSession_GetLanguage(refused, nullptr), -1);
  }
  EXPECT_EQ(library.host.TakeReports(), Refusals("102846 102848 102827 102828 102702 102849 102829 102830"));
}

TEST(Session, HoldsTheRegistryMutexAlone) {
  LibraryRig library;  // mutex 0 is the registry's, then come the session's and its recognizers'
  SessionRig rig(2);
  rig.Acquire("a");
  rig.slots->Attach(rig.body);
  rig.slots->Update(rig.body);
  rig.slots->ResetRecognizersA(rig.body);
  rig.slots->ReleaseAllRecognizers(rig.body);
  rig.slots->Detach(rig.body);
  rig.Destroy();
  for (const auto& [held, taken] : library.host.lock_pairs) {
    EXPECT_EQ(held, 1) << "only a session's mutex is held while another is taken";
    EXPECT_GE(taken, 2);
  }
  EXPECT_FALSE(library.host.lock_pairs.empty());
}

}  // namespace

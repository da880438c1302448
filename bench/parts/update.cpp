// Row "update_64", counted only: a session's update while all its members are silent. A unit: one recognizer. The limit
// is one atomic load per recognizer, of the word that tells whether the member is enabled.
#include <memory>

#include "cases.h"
#include "recognizer_record.h"
#include "room_session.h"

namespace bench {
namespace {

constexpr std::uint32_t kMembers = 64;

struct IdleRoom {
  IdleRoom() {
    session.lend(kMembers);
    for (SttRecognizerHn recognizer : session.lent())
      words.push_back(&recognizer->instance->enabled);
  }

  Library library;
  RoomSession session{kMembers};
  std::vector<const std::uint32_t*> words;
};

}  // namespace

void add_update_cases(Cases& cases) {
  auto room = std::make_shared<IdleRoom>();
  cases.push_back({"update_64/plugin", kMembers, [room] { room->session.update(); }});
  cases.push_back({"update_64/limit", kMembers, [room] {
                     for (const std::uint32_t* word : room->words)
                       static_cast<void>(__atomic_load_n(word, __ATOMIC_SEQ_CST));
                   }});
}

}  // namespace bench

// One room of the host and the threads that use its session, each a fiber: the driver (this class's Run), an audio
// thread, and a listener that pops and releases texts and changes members' settings. They overlap wherever the public
// headers let them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "scheduler.h"
#include "seat.h"
#include "zel_rtc_speech_to_text.h"

namespace sim {

// The main thread of the simulated process: installs the bridge, initializes the library, lets rooms live, finalizes;
// sometimes twice. The root of every run.
void RunApplication();

class Room {
 public:
  explicit Room(std::uint32_t number) : name(1, static_cast<char>('A' + number)) {}

  // ---- For the services
  static int& LiveOf(Room* room);  // the count of live objects of a room, or of the process
  int live = 0;
  const std::string name;
  std::vector<std::unique_ptr<Seat>> seats;  // in the order of their places in the session's work area
  Seat* SeatOf(const void* address) const;   // whose part of the work area that is
  Seat* AddSeat(std::uint32_t ring_bytes);

  // ---- The driver's life: one session after the other; the last one may be left to the library's finalization.
  void Run();
  bool attached() const { return settings_.attached; }
  std::string Refusal() const;  // of the destruction of an attached session
  void Detach();
  void SessionIsGone();

 private:
  struct Held {
    PacketRef* packet;
    Seat* seat;
    Micros until;
  };
  struct Speech {
    bool talking = false;
    std::uint32_t frames = 0, size = 0;  // frames left, longest packet
  };

  // Driver
  void CreateSession();
  void Drive();
  void Trouble();
  void Update();
  void Join();
  void Leave(Seat* only);  // null: all
  void LeaveAll();
  void LeaveSomebody();
  void RenameSomebody();
  void ResetAll();
  void SetEndpoint();
  void SetToken();
  void SetClientId(Seat& seat);

  // Audio
  void Talk();
  void Feed(Seat& seat, Speech& speech);

  // Listener, which is the application too
  void Listen();
  void Release(bool all);  // packets that have been held long enough
  void ChangeSetting();

  Seat* Somebody();  // a joined member, or null

  RoomSettings settings_;
  ZelRtcSpeechToTextSessionHn session_ = nullptr;
  const SttSessionInterface* table_ = nullptr;
  SttSessionBody* body_ = nullptr;
  bool closing_ = false;
  Gate driving_;     // held around updates, resets and the release of packets
  Gate client_ids_;  // held while a client id is set, and by member operations
  std::vector<Held> held_;
};

}  // namespace sim

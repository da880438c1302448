// One room of the host and the threads that use its session, each a fiber: the driver (this class's Run), an audio
// thread, a listener that pops and releases texts, and an application that changes members' settings. They overlap
// wherever the public headers let them.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "host_services.h"
#include "ledger.h"
#include "scheduler.h"
#include "zel_rtc_speech_to_text.h"
#include "zel_rtc_speech_to_text_host.h"

namespace sim {

class Room {
 public:
  explicit Room(std::uint32_t number) : name_(std::string(1, static_cast<char>('A' + number))) {}

  // ---- For the services
  static int& LiveOf(Room* room);  // the count of live objects of a room, or of the process
  int live = 0;
  bool setting_up = false;                   // the session is being created, and services may refuse
  std::vector<std::unique_ptr<Seat>> seats;  // in the order of their places in the session's work area
  Seat* SeatOf(const void* address) const;   // whose part of the work area that is
  Ring* AddSeat(std::uint32_t ring_bytes);

  // ---- The driver's life: one session after the other; the last one may be left to the library's finalization.
  void Run();
  bool has_session() const { return session_ != nullptr; }
  bool attached() const { return attached_; }
  void Detach();
  // Packets that the host will have kept when the session goes; each such recognizer is reported once.
  void ExpectLeaks();
  void SessionIsGone();
  const std::string& name() const { return name_; }

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
  bool CreateSession(bool troubled);  // troubled: services may refuse
  void DestroySession();
  void Drive();
  void Trouble();
  void Update();
  void Join();
  void Leave(Seat& seat);
  void LeaveAll();
  void ResetAll();
  void SetEndpoint();
  void SetToken();
  void SetClientId(Seat& seat);

  // Audio
  void Talk();
  void Feed(Seat& seat, Speech& speech);

  // Listener
  void Listen();
  void PopAll();
  void Release(const Held& held);

  // Application
  void ChangeSettings();
  void SetLanguage(Seat& seat);
  void Enable(Seat& seat);
  void AskForStranger();

  Seat* Somebody();  // a joined member, or null

  const std::string name_;
  RoomSettings settings_;
  ZelRtcSpeechToTextSessionHn session_ = nullptr;
  const SttSessionInterface* table_ = nullptr;
  SttSessionBody* body_ = nullptr;
  std::unique_ptr<WorkArea> area_;  // null: the area comes from the application's allocator
  bool attached_ = false, closing_ = false;
  Gate driving_;     // held around updates, resets and the release of packets
  Gate client_ids_;  // held while a client id is set, and by member operations
  std::vector<Held> held_;
};

}  // namespace sim

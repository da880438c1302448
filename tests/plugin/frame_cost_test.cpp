// What a frame may ask for: of the host the atomic words, the copy and the ring buffer, no locks above all; of the
// system nothing.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>

#include "raw_host.h"

namespace {

thread_local int other_services = 0;

// Idle workers may come by while the table is in place; they must not spin.
void wait_for_event(void* event) {
  ++other_services;
  zel::host::bridge_interface().table->event_wait(event);
}

// Ends the calling process with SIGSYS at the next system call that is not its exit.
bool forbid_system_calls() {
  sock_filter rules[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, 0),  // the call's number
                         BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_exit, 0, 1),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
                         BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS)};
  const sock_fprog program = {std::size(rules), rules};
  return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// How a child that does `work` without system calls ends.
template <typename Work>
int run_confined(const Work& work) {
  const pid_t child = fork();
  if (child == 0) syscall(SYS_exit, forbid_system_calls() && work() ? 0 : 1);
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

using FrameCost = RawHost;

TEST_F(FrameCost, NeitherLocksNorSystemCalls) {
  std::array<void*, 88> table;
  for (std::size_t slot = 0; slot < table.size(); ++slot) {
    const bool allowed = slot == 2 || slot == 3 || slot == 12 || (slot >= 49 && slot <= 53);
    table[slot] = allowed ? peek<void*>(zel::host::bridge_interface().table, 8 * slot)
                          : reinterpret_cast<void*>(+[] { ++other_services; });
  }
  table[86] = reinterpret_cast<void*>(&wait_for_event);
  void* speaker = add_member(1, "speaker");
  // Six utterances, one that a minute ends, one too short, and silence between them.
  const auto speak = [speaker] {
    static const char packet[60] = {0x50};
    bool taken = true;
    for (int i = 0; i < 4000; ++i) {
      const bool audio = (i < 366 && i % 61 < 50) || (i >= 400 && i < 1900) || i == 3000;
      taken = put_frame(speaker, audio ? packet : nullptr, sizeof packet) == 1 && taken;
    }
    return taken;
  };
  char record[16] = {};
  poke(record, 0, peek<std::uint32_t>(&zel::host::bridge_interface(), 0));
  poke(record, 8, table.data());
  plugin<void>("_SetBaseRtcBridgeInterface", static_cast<const void*>(record));
  EXPECT_EQ(run_confined(speak), 0);
  EXPECT_EQ(run_confined([] { return getppid() > 0; }), -SIGSYS) << "the watchman sleeps";
  EXPECT_TRUE(speak());
  plugin<void>("_SetBaseRtcBridgeInterface", static_cast<const void*>(&zel::host::bridge_interface()));
  EXPECT_EQ(other_services, 0);
}

}  // namespace

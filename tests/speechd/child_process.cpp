#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace speechd_test {

ChildProcess::ChildProcess(std::vector<std::string> command, bool read_output) {
  signal(SIGPIPE, SIG_IGN);
  std::array<int, 2> in, out;
  if (pipe2(in.data(), O_CLOEXEC) != 0 || pipe2(out.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  input_ = in[1];
  output_ = out[0];
  if (!read_output) close(std::exchange(output_, -1));

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, folder_.File("errors").c_str(), O_WRONLY | O_CREAT, 0600);
  std::vector<char*> arguments;
  for (std::string& argument : command)
    arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  const int error = posix_spawnp(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
  if (error != 0) throw std::runtime_error("cannot run " + command[0]);
}

ChildProcess::~ChildProcess() {
  if (pid_ < 0) return;
  kill(pid_, SIGKILL);
  Finish();
}

bool ChildProcess::ReadSome() {
  std::array<char, 4096> block;
  const ssize_t count = output_ >= 0 ? read(output_, block.data(), block.size()) : 0;
  if (count > 0) read_.append(block.data(), static_cast<std::size_t>(count));
  return count > 0;
}

std::string ChildProcess::ReadLine() {
  while (read_.find('\n') == std::string::npos && ReadSome()) {
  }
  const std::size_t end = std::min(read_.find('\n'), read_.size());
  std::string line = read_.substr(0, end);
  read_.erase(0, end + 1);
  return line;
}

Output ChildProcess::Finish() {
  close(input_);
  while (ReadSome()) {
  }
  if (output_ >= 0) close(output_);
  int status = 0;
  waitpid(std::exchange(pid_, -1), &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), std::move(read_),
          ReadFile(folder_.File("errors"))};
}

}  // namespace speechd_test

#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace speechd_test {

ChildProcess::ChildProcess(std::vector<std::string> command, const std::string& input) {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  output_pipe_ = ends[0];

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, input.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, folder_.File("errors").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (std::string& argument : command)
    arguments.push_back(argument.data());
  arguments.push_back(nullptr);
  const int error = posix_spawn(&pid_, arguments[0], &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(ends[1]);
  if (error != 0) throw std::runtime_error("cannot run " + command[0]);
}

ChildProcess::~ChildProcess() {
  if (status_ < 0 && pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(output_pipe_);
}

bool ChildProcess::ReadSome() {
  std::array<char, 4096> buffer;
  const ssize_t count = read(output_pipe_, buffer.data(), buffer.size());
  if (count <= 0) return false;
  output_.append(buffer.data(), static_cast<std::size_t>(count));
  return true;
}

std::string ChildProcess::ReadLine() {
  while (output_.find('\n') == std::string::npos && ReadSome()) {
  }
  const std::size_t end = std::min(output_.find('\n'), output_.size());
  std::string line = output_.substr(0, end);
  output_.erase(0, end + 1);
  return line;
}

void ChildProcess::Signal(int signal) {
  kill(pid_, signal);
}

int ChildProcess::Wait() {
  while (ReadSome()) {
  }
  int status = 0;
  if (status_ < 0 && waitpid(pid_, &status, 0) == pid_)
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return status_;
}

}  // namespace speechd_test

#include "child.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <stdexcept>

namespace {

std::array<int, 2> make_pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  return ends;
}

void read_all(int descriptor, std::string& text) {
  char block[4096];
  for (ssize_t got = 0; (got = read(descriptor, block, sizeof block)) > 0;)
    text.append(block, static_cast<std::size_t>(got));
  close(descriptor);
}

}  // namespace

Child::Child(std::vector<std::string> arguments, bool read_output) {
  signal(SIGPIPE, SIG_IGN);
  const auto in = make_pipe();
  const auto out = make_pipe();
  const auto err = make_pipe();
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
  std::vector<char*> pointers;
  for (std::string& argument : arguments)
    pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  const int failure = posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  for (const int end : {in[0], out[1], err[1]})
    close(end);
  if (failure != 0) throw std::runtime_error("posix_spawn");
  input_ = in[1];
  if (read_output) {
    readers_[0] = std::thread(read_all, out[0], std::ref(output_.out));
  } else {
    close(out[0]);
  }
  readers_[1] = std::thread(read_all, err[0], std::ref(output_.err));
}

Child::~Child() {
  if (pid_ > 0) kill(pid_, SIGKILL);
  if (pid_ > 0) finish();
}

void Child::close_input() {
  if (input_ >= 0) close(input_);
  input_ = -1;
}

Output Child::finish() {
  close_input();
  for (std::thread& reader : readers_) {
    if (reader.joinable()) reader.join();
  }
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  output_.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return output_;
}

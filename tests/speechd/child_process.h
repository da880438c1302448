// A program run as a user would, with pipes to its standard input and from its standard output.
//
// Thread rule: one thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "temporary_folder.h"

namespace speechd_test {

struct Output {
  int status = -1;  // exit status, or 128 and the signal that ended it
  std::string out;  // without what ReadLine has given
  std::string err;
};

class ChildProcess {
 public:
  // `command` begins with the program, which is looked up in the PATH. With nobody to read it, the output meets a
  // closed pipe.
  explicit ChildProcess(std::vector<std::string> command, bool read_output = true);
  // Kills the program when it is still there.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  int input() const { return input_; }
  // The next line of standard output without its end; empty at the end of the output.
  std::string ReadLine();
  // Closes standard input and waits for the end.
  Output Finish();

 private:
  bool ReadSome();

  TemporaryFolder folder_;  // of standard error
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  std::string read_;
};

// Runs a program that needs no input.
inline Output RunProgram(std::vector<std::string> command) {
  return ChildProcess(std::move(command)).Finish();
}

}  // namespace speechd_test

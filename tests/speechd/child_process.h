// A program run as a user would, with its input from a file and its output kept.
//
// Thread rule: one thread.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "temporary_folder.h"

namespace speechd_test {

class ChildProcess {
 public:
  // `command` begins with the program's path. Input is /dev/null unless a file is named.
  explicit ChildProcess(std::vector<std::string> command, const std::string& input = "/dev/null");
  // Kills the program when it is still there.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The next line of standard output without its end; empty at the end of the output.
  std::string ReadLine();
  void Signal(int signal);
  // Waits for the end: the exit status, or 128 and the signal that ended it.
  int Wait();
  // What of standard output ReadLine has not given, and all of standard error; after Wait.
  const std::string& output() const { return output_; }
  std::string errors() const { return ReadFile(folder_.File("errors")); }

 private:
  bool ReadSome();

  TemporaryFolder folder_;
  pid_t pid_ = -1;
  int status_ = -1;
  int output_pipe_ = -1;
  std::string output_;
};

}  // namespace speechd_test

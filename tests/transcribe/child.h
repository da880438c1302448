// A program run by a test, with pipes to all three of its standard streams.
#pragma once

#include <sys/types.h>

#include <span>
#include <string>
#include <thread>
#include <vector>

struct Output {
  int status = -1;  ///< exit status; 128 and the signal for one that was killed
  std::string out;
  std::string err;
};

class Child {
 public:
  explicit Child(std::vector<std::string> arguments, bool read_output = true);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return pid_; }
  int input() const { return input_; }
  void close_input();
  /** Closes standard input and waits for the end. */
  Output finish();

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  Output output_;
  std::thread readers_[2];
};

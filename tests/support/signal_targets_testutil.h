// Test support for signal sending, shared by the setter tests and the whole-daemon tests:
// processes of the signal_target program running under names of the test's choosing, and the
// signals each of them received.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tessard::test {

class SignalTargets {
 public:
  // program: the signal_target binary; dir: where each target writes down what it receives.
  SignalTargets(std::string program, std::string dir)
      : program_(std::move(program)), dir_(std::move(dir)) {}
  SignalTargets(const SignalTargets&) = delete;
  SignalTargets& operator=(const SignalTargets&) = delete;
  ~SignalTargets() {
    for (pid_t pid : pids_) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }

  // Starts a target whose program name (argv[0] after its last "/") is `name` followed by this
  // test process's pid, so that test runs side by side never signal each other's targets.
  // Returns that program name once the target listens.
  std::string start(const std::string& name) {
    std::string unique = "tsig" + std::to_string(getpid()) + name;
    int fds[2];
    EXPECT_EQ(pipe(fds), 0);
    pid_t pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1);
      std::string out = dir_ + "/" + unique;
      execl(program_.c_str(), ("/some/dir/" + unique).c_str(), out.c_str(), nullptr);
      _exit(127);
    }
    close(fds[1]);
    char ready[6] = {};
    EXPECT_EQ(read(fds[0], ready, 5), 5) << "the signal target did not start";
    close(fds[0]);
    pids_.push_back(pid);
    names_.push_back(unique);
    consumed_.push_back(0);
    return unique;
  }

  // The signals each started target received since the last call, in start order, one number per
  // line, once all signals sent so far have arrived: a final SIGSYS (31) is handled after every
  // lower signal already pending.
  std::vector<std::string> received() {
    std::vector<std::string> result;
    // Lets signals sent a moment ago reach a target that the scheduler has not run yet.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (size_t i = 0; i < pids_.size(); ++i) {
      std::string path = dir_ + "/" + names_[i];
      kill(pids_[i], SIGSYS);
      std::string text;
      size_t end = std::string::npos;
      for (int tries = 0; tries < 500 && end == std::string::npos; ++tries) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        text = read_file(path);
        end = text.find("31\n", consumed_[i]);
      }
      EXPECT_NE(end, std::string::npos) << names_[i] << " did not answer";
      end = std::min(end, text.size());
      result.push_back(text.substr(consumed_[i], end - consumed_[i]));
      consumed_[i] = end + 3;
    }
    return result;
  }

 private:
  static std::string read_file(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string program_;
  std::string dir_;
  std::vector<pid_t> pids_;
  std::vector<std::string> names_;
  std::vector<size_t> consumed_;  // bytes of each target's record already handed out
};

}  // namespace tessard::test

// SPDX-License-Identifier: MIT

// A set-user-ID program ignores the environment its caller gives it: run as
// the user nobody, a set-user-ID-root copy of privileged_env_probe must
// not take its per-user data path from APPDATA nor its crash wait from
// ZEL_LOG_CRASH_WAIT_MS. The same program run plainly takes both, which
// shows that the probe sees what the library reads.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support/test_util.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define ZEL_TEST_UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) || \
    __has_feature(memory_sanitizer)
#define ZEL_TEST_UNDER_SANITIZER 1
#endif
#endif

namespace {

using zel_test::TempDir;

// What one run of the probe printed and how it ended.
struct ProbeRun {
  std::string output;           // everything it printed on standard output
  bool ended = false;           // it ended within the deadline (killed otherwise)
  int status = 0;               // waitpid's status
  long long msAfterFault = -1;  // from the time on its "faulting" line to its end
};

// Runs `program` with `base` as its argument and only `environment`, as
// nobody through setpriv when `asNobody`. Waits at most 60 s for it to end
// after it said it faults; kills it then.
ProbeRun RunProbe(const std::string& program, const std::string& base,
                  const std::vector<std::string>& environment, bool asNobody) {
  ProbeRun run;
  int out[2];
  if (pipe(out) != 0) return run;
  const pid_t child = fork();
  if (child < 0) return run;
  if (child == 0) {
    dup2(out[1], STDOUT_FILENO);
    close(out[0]);
    close(out[1]);
    std::vector<char*> envp;
    for (const std::string& entry : environment) envp.push_back(const_cast<char*>(entry.c_str()));
    envp.push_back(nullptr);
    std::vector<std::string> args;
    if (asNobody) {
      args = {"setpriv", "--reuid=nobody", "--regid=nogroup", "--clear-groups", "--"};
    }
    args.push_back(program);
    args.push_back(base);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(&arg[0]);
    argv.push_back(nullptr);
    execve(asNobody ? "/usr/bin/setpriv" : program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  long long faultAtNs = 0;  // the probe's steady clock just before its fault
  bool faulting = false;
  bool open = true;
  while (open && std::chrono::steady_clock::now() < deadline) {
    pollfd pfd{out[0], POLLIN, 0};
    if (poll(&pfd, 1, 100) <= 0) continue;
    char buf[512];
    const ssize_t n = read(out[0], buf, sizeof(buf));
    if (n <= 0) {
      open = false;
    } else {
      run.output.append(buf, static_cast<std::size_t>(n));
    }
    const std::size_t line = run.output.find("faulting ");
    if (!faulting && line != std::string::npos &&
        run.output.find('\n', line) != std::string::npos) {
      faulting = true;
      faultAtNs = std::atoll(run.output.c_str() + line + 9);
    }
  }
  run.ended = zel_test::WaitFor(
      [&] { return waitpid(child, &run.status, WNOHANG) == child; },
      std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now() + std::chrono::milliseconds(1)));
  if (!run.ended) {
    kill(child, SIGKILL);
    waitpid(child, &run.status, 0);
  } else if (faulting) {
    const long long nowNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                std::chrono::steady_clock::now().time_since_epoch())
                                .count();
    run.msAfterFault = (nowNs - faultAtNs) / 1000000;
  }
  close(out[0]);
  return run;
}

// A set-user-ID-root copy of the probe in a directory that nobody may
// enter; empty when it cannot be made.
std::string SetUserIdCopy(const std::string& dir) {
  const std::string copy = dir + "privileged_env_probe";
  const std::string data = zel_test::ReadFile(ZEL_PRIVILEGED_ENV_PROBE);
  if (data.empty()) return std::string();
  zel_test::WriteFile(copy, data);
  if (chown(copy.c_str(), 0, 0) != 0 || chmod(copy.c_str(), 04755) != 0) return std::string();
  if (chmod(dir.c_str(), 0755) != 0) return std::string();
  return copy;
}

class PrivilegedEnvTest : public ::testing::Test {
 protected:
  void SetUp() override {
#if defined(ZEL_TEST_UNDER_SANITIZER)
    GTEST_SKIP() << "a sanitizer's runtime does not run set-user-ID programs as they run";
#else
    if (geteuid() != 0) GTEST_SKIP() << "making a set-user-ID-root copy needs root";
    if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv (util-linux) is missing";
#endif
  }
};

TEST_F(PrivilegedEnvTest, SetUserIdProgramIgnoresAppDataAndTheCrashWaitOfItsCaller) {
  TempDir dir;
  const std::string copy = SetUserIdCopy(dir.path());
  ASSERT_FALSE(copy.empty());
  const std::string base = dir.path() + "log/";
  // The caller asks for a data path of his and a crash wait of ten minutes.
  const ProbeRun run =
      RunProbe(copy, base, {"APPDATA=/home/attacker", "ZEL_LOG_CRASH_WAIT_MS=600000"}, true);
  ASSERT_NE(run.output.find("secure=1\n"), std::string::npos)
      << "the copy did not run set-user-ID (a file system mounted nosuid?): " << run.output;
  EXPECT_NE(run.output.find("appdata=[]\n"), std::string::npos) << run.output;
  ASSERT_NE(run.output.find("faulting "), std::string::npos) << run.output;
  ASSERT_TRUE(run.ended) << "still waiting 60 s after the fault: the caller's wait was used";
  ASSERT_TRUE(WIFSIGNALED(run.status)) << run.status;
  EXPECT_EQ(WTERMSIG(run.status), SIGSEGV);
  // The library's own wait of 2 s for the stuck writer, not less.
  EXPECT_GE(run.msAfterFault, 2000);
}

TEST_F(PrivilegedEnvTest, PlainProgramTakesAppDataAndTheCrashWait) {
  // The same program, neither set-user-ID nor run by another user, takes
  // both variables: what the copy ignores, it would otherwise have read.
  TempDir dir;
  const std::string base = dir.path() + "log/";
  const ProbeRun run = RunProbe(ZEL_PRIVILEGED_ENV_PROBE, base,
                                {"APPDATA=/home/caller", "ZEL_LOG_CRASH_WAIT_MS=3000"}, false);
  EXPECT_NE(run.output.find("secure=0\n"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("appdata=[/home/caller/ostrel/log/]\n"), std::string::npos)
      << run.output;
  ASSERT_TRUE(run.ended);
  ASSERT_TRUE(WIFSIGNALED(run.status)) << run.status;
  EXPECT_EQ(WTERMSIG(run.status), SIGSEGV);
  EXPECT_GE(run.msAfterFault, 3000);
}

}  // namespace

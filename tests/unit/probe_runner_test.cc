#include "orvexd/platform/probe_runner.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cerrno>

#include "tests/support/test_environment.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

ProbeOutcome runShell(const std::string& script, std::size_t maxOutputBytes = 1024,
                      std::chrono::milliseconds timeout = 10s) {
  return runProbe({"/bin/sh", {"-c", script}, {"FOO=bar"}, maxOutputBytes, timeout});
}

// What the helper sees: its arguments, the given environment alone, /dev/null as input; its
// output is returned even when a background child it left keeps the pipe open.
TEST(ProbeRunner, HandsOverTheOutputOfAChildThatSucceeds) {
  auto outcome = runShell("cat; printf '%s|%s|%s' \"$FOO\" \"$HOME\" \"$ORVEXD_PROBE\"");
  EXPECT_EQ(outcome.output, "bar||");
  outcome = runShell("sleep 5 & echo done", 1024, 2s);
  EXPECT_EQ(outcome.output, "done\n") << outcome.failure;
}

// Each way the helper can fail gives no output and a reason, and leaves no child behind.
TEST(ProbeRunner, FailsClearlyAndReapsTheChild) {
  testing::TempDir dir;
  auto outcome = runProbe({dir.path() / "orvexd-probe", {}, {}});
  EXPECT_FALSE(outcome.output);
  EXPECT_NE(outcome.failure.find("No such file"), std::string::npos) << outcome.failure;

  outcome = runShell("echo partial; exit 3");
  EXPECT_FALSE(outcome.output);
  EXPECT_EQ(outcome.failure, "exited with status 3");

  outcome = runShell("kill -SEGV $$");
  EXPECT_FALSE(outcome.output);
  EXPECT_EQ(outcome.failure, "was killed by signal 11");

  // Endless output is cut at the limit; the writer is killed, not waited for.
  outcome = runShell("exec yes", 1000);
  EXPECT_FALSE(outcome.output);
  EXPECT_EQ(outcome.failure, "printed more than 1000 bytes");

  // A helper that hangs, silent or after some output, is killed at its time-out.
  for (const char* script : {"exec sleep 60", "echo started; exec sleep 60"}) {
    outcome = runShell(script, 1024, 100ms);
    EXPECT_FALSE(outcome.output);
    EXPECT_EQ(outcome.failure, "did not finish within 100 ms");
  }

  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

// The helper is next to the running program unless the environment names another.
TEST(ProbeRunner, FindsTheHelperNextToTheProgramOrWhereTheEnvironmentSays) {
  {
    testing::ScopedEnv unset("ORVEXD_PROBE", std::nullopt);
    const auto path = probeExecutablePath();
    EXPECT_EQ(path.filename(), "orvexd-probe");
    EXPECT_TRUE(std::filesystem::exists(path.parent_path() / "orvex_unit_tests"));
  }
  testing::ScopedEnv set("ORVEXD_PROBE", "/opt/probe");
  EXPECT_EQ(probeExecutablePath(), "/opt/probe");
}

}  // namespace
}  // namespace orvex

// tests/support/fresh_process.h - checks in a process of their own.
#pragma once
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>

namespace ptz_test {

// For modules that keep what they have read once, and for what would change the whole test program. Fails the test
// where a check fails there.
inline void in_fresh_process(const std::function<void()> &checks) {
  std::fflush(nullptr);
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    checks();
    std::exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the checks failed; status " << status;
}

}  // namespace ptz_test

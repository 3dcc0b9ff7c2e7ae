// A test fixture around a scratch directory, for tests of the file toolkit.
// Only valid inside the hermetic test runner.
#ifndef VELMORA_TESTS_SUPPORT_SCRATCH_TEST_H_
#define VELMORA_TESTS_SUPPORT_SCRATCH_TEST_H_

#include <sys/stat.h>

#include "gtest/gtest.h"
#include "support/test_util.h"

namespace velmora {
namespace test {

// dir_ is a fresh scratch directory that anyone may write (children that run
// as a test account create and open files there); the umask is 022 during
// the test and restored after it.
class ScratchDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_FALSE(dir_.path().empty());
    ASSERT_EQ(chmod(dir_.path().c_str(), 0777), 0);
    previous_umask_ = umask(022);
  }
  void TearDown() override { umask(previous_umask_); }

  ScratchDir dir_;
  mode_t previous_umask_ = 0;
};

}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_SUPPORT_SCRATCH_TEST_H_

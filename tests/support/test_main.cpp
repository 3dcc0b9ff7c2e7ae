// main() for every test binary. The tests create files under /var, /run and
// /tmp, log to /dev/log and switch to test accounts, so they only ever run
// inside scripts/hermetic-run's private namespaces, never on the host itself.

#include <cstdio>

#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/log_capture.h"

int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  // Listing the tests touches nothing, so that much is allowed anywhere.
  if (!GTEST_FLAG_GET(list_tests) && !velmora::test::InHermeticRunner()) {
    std::fprintf(stderr,
                 "%s: refusing to run outside the hermetic test runner.\n"
                 "These tests write to /var, /run and /tmp and use test accounts; run them\n"
                 "through ctest, or as: scripts/hermetic-run --sink "
                 "<build>/tests/velmora_syslog_sink -- %s\n",
                 argc > 0 ? argv[0] : "test", argc > 0 ? argv[0] : "TEST_BINARY");
    return 1;
  }
  return RUN_ALL_TESTS();
}

// The bash completion of velmoractl as installed.
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include <velmora/velmora.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "settings/settings_test_util.h"
#include "tools/tool_runner.h"

namespace velmora {
namespace test {
namespace {

using namespace settings_test;

// ---- Shell completion ----

// The words bash would offer after `line` (the last word is being typed).
std::string Complete(const std::string& line) {
  const std::string script =
      std::string("source '") + VELMORACTL_COMPLETION + "'; COMP_LINE='" + line +
      "'; read -ra COMP_WORDS <<< \"$COMP_LINE\"; "
      "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=(''); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
      "_velmoractl; printf '%s\\n' \"${COMPREPLY[@]}\" | sort | tr '\\n' ' '";
  ScratchDir scratch;
  const std::string out = scratch.path() + "/out";
  Shell("bash -c \"$(cat <<'EOF'\n" + script + "\nEOF\n)\" > " + out + " 2>&1");
  return ReadFile(out);
}

TEST(VelmoractlCompletion, OffersSubcommandsAndOptionsAtEachLevel) {
  EXPECT_EQ(Complete("velmoractl "),
            "--help --json --verbose --version features get kv lock memcached pop3 query quota "
            "route script services user ");
  EXPECT_EQ(Complete("velmoractl qu"), "query quota ");
  EXPECT_EQ(Complete("velmoractl quota "), "attr clear-usage limit usage warning ");
  EXPECT_EQ(Complete("velmoractl quota limit "), "get set ");
  EXPECT_EQ(Complete("velmoractl pop3 vt "), "list set start start-all status stop stop-all ");
  EXPECT_EQ(Complete("velmoractl pop3 vt set --"),
            "--enabled --help --json --period --verbose --version ");
  EXPECT_EQ(Complete("velmoractl pop3 vt set --enabled "), "no yes ");
  EXPECT_EQ(Complete("velmoractl features set enable_c"), "enable_calendar= enable_chat= ");
  EXPECT_EQ(Complete("velmoractl features set enable_chat="), "enable_chat=no enable_chat=yes ");
  EXPECT_EQ(Complete("velmoractl user uid vtuser"), "vtuser1 vtuser2 vtuser3 ");
  EXPECT_EQ(Complete("velmoractl memcached "), "--server --socket delete get set ");
}

}  // namespace
}  // namespace test
}  // namespace velmora

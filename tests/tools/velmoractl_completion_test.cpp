// The bash completion of velmoractl as installed, and the word lists that
// the tool prints for it (`velmoractl __complete`).
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <velmora/velmora.h>
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"
#include "support/tool_runner.h"

namespace velmora {
namespace test {
namespace {

using namespace settings_test;
using ::testing::ElementsAreArray;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kBashCompletion[] = "/usr/share/bash-completion/bash_completion";

// The directory of the installed tool, put first on PATH for the shells.
std::string ToolDir() {
  const std::string path = VELMORACTL_PATH;
  return path.substr(0, path.rfind('/'));
}

// `text` between single quotes for a shell.
std::string ShellWord(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

// The words of `text`, split at blanks and line breaks.
std::vector<std::string> Words(const std::string& text) {
  std::vector<std::string> words;
  std::istringstream in(text);
  std::string word;
  while (in >> word) words.push_back(word);
  return words;
}

std::string Joined(const std::vector<std::string>& words) {
  std::string out;
  for (const std::string& w : words) out += w + " ";
  return out;
}

// The lists of the routing table, as the completion should offer them.
std::vector<std::string> TableKeys() {
  std::vector<std::string> keys;
  for (const auto& row : config::KeyTreeStore::instance()->keyTree()) keys.push_back(row.first);
  return keys;
}

std::vector<std::string> ScriptServices() {
  std::vector<std::string> services;
  for (const auto& row : config::KeyTreeStore::instance()->servScript()) {
    services.push_back(row.first);
  }
  return services;
}

std::vector<std::string> Roles() {
  std::set<std::string> roles;
  for (const auto& row : config::KeyTreeStore::instance()->servRole()) {
    if (!row.second.empty()) roles.insert(row.second);
  }
  return std::vector<std::string>(roles.begin(), roles.end());
}

std::vector<std::string> Switches() {
  std::vector<std::string> keys;
  for (const auto& row : config::KeyTreeStore::instance()->keyServs()) keys.push_back(row.first);
  return keys;
}

// The table keys that start with `prefix`.
std::vector<std::string> KeysStartingWith(const std::string& prefix) {
  std::vector<std::string> keys;
  for (const std::string& key : TableKeys()) {
    if (key.compare(0, prefix.size(), prefix) == 0) keys.push_back(key);
  }
  return keys;
}

// ---- The word lists ----

TEST(VelmoractlComplete, ListsTheRoutingTable) {
  Result keys = Tool({"__complete", "keys"});
  EXPECT_EQ(keys.status, 0) << keys.err;
  EXPECT_EQ(keys.err, "");
  EXPECT_THAT(Words(keys.out), ElementsAreArray(TableKeys()));
  // One item a line, family keys with their "-".
  EXPECT_THAT(keys.out, HasSubstr("\nadditional_domain-\n"));

  Result services = Tool({"__complete", "services"});
  EXPECT_EQ(services.status, 0) << services.err;
  EXPECT_THAT(Words(services.out), ElementsAreArray(ScriptServices()));
  // A service with a role but no script is left out.
  EXPECT_THAT(Words(services.out), Not(::testing::Contains("mailserver_service_balancer")));

  Result roles = Tool({"__complete", "roles"});
  EXPECT_EQ(roles.status, 0) << roles.err;
  EXPECT_EQ(roles.out, "balancer\nmailer\nstorager\n");
  EXPECT_THAT(Words(roles.out), ElementsAreArray(Roles()));

  Result switches = Tool({"__complete", "switches"});
  EXPECT_EQ(switches.status, 0) << switches.err;
  EXPECT_THAT(Words(switches.out), ElementsAreArray(Switches()));
  for (const std::string& key : Words(switches.out)) {
    EXPECT_FALSE(config::KeyTreeStore::instance()->getKeyServ(key).empty()) << key;
  }
}

TEST(VelmoractlComplete, RejectsAnUnknownList) {
  Result bad = Tool({"__complete", "users"});
  EXPECT_EQ(bad.status, 2);
  EXPECT_EQ(bad.out, "");
  EXPECT_THAT(bad.err, OneErrorLine());
  EXPECT_THAT(bad.err, HasSubstr("'users'"));

  Result none = Tool({"__complete"});
  EXPECT_EQ(none.status, 2);
  EXPECT_EQ(none.out, "");
  EXPECT_THAT(none.err, OneErrorLine());
}

TEST(VelmoractlComplete, IsNotInTheHelp) {
  Result help = Tool({"--help"});
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.out, HasSubstr("route"));
  EXPECT_THAT(help.out, Not(HasSubstr("__complete")));
}

// ---- The completion function, called as bash would call it ----

// The words the completion offers after `line` (its last word is being
// typed), sorted, each followed by a blank. COMP_WORDS is split as bash
// splits it, with "=" a word of its own; `bash_completion` loads Debian's
// bash-completion first. Runs in `dir`, with the tool on PATH.
std::string Complete(const std::string& line, bool bash_completion, const std::string& dir) {
  const std::string script =
      std::string(bash_completion ? std::string("source ") + kBashCompletion + "\n" : "") +
      "source " + ShellWord(VELMORACTL_COMPLETION) + "\n" +
      "export LC_ALL=C PATH=" + ShellWord(ToolDir()) +
      ":/usr/bin:/bin\n"
      "cd " +
      ShellWord(dir) +
      "\n"
      "COMP_WORDBREAKS=$' \\t\\n\"\\'><=;|&(:'\n"
      "COMP_LINE=" +
      ShellWord(line) +
      "\n"
      "COMP_POINT=${#COMP_LINE}\n"
      "read -ra raw <<< \"$COMP_LINE\"\n"
      "COMP_WORDS=()\n"
      "for w in \"${raw[@]}\"; do\n"
      "  while [[ -n $w ]]; do\n"
      "    if [[ $w == =* ]]; then piece=${w%%[!=]*}; else piece=${w%%=*}; fi\n"
      "    COMP_WORDS+=(\"$piece\"); w=${w:${#piece}}\n"
      "  done\n"
      "done\n"
      "[[ $COMP_LINE == *' ' ]] && COMP_WORDS+=('')\n"
      "COMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n"
      "_velmoractl\n"
      "((${#COMPREPLY[@]})) && printf '%s\\n' \"${COMPREPLY[@]}\" | sort | tr '\\n' ' '\n";
  ScratchDir scratch;
  const std::string file = scratch.path() + "/complete.sh";
  const std::string out = scratch.path() + "/out";
  WriteFile(file, script);
  Shell("bash " + file + " > " + out + " 2>&1");
  return ReadFile(out);
}

class VelmoractlCompletion : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch_.path().empty());
    ASSERT_TRUE(MakeDir(scratch_ / "gamma"));
    ASSERT_TRUE(WriteFile(scratch_ / "alpha.txt", ""));
    ASSERT_TRUE(WriteFile(scratch_ / "beta.txt", ""));
  }

  std::string Complete(const std::string& line) {
    return test::Complete(line, GetParam(), scratch_.path());
  }

  ScratchDir scratch_;
};

TEST_P(VelmoractlCompletion, OffersSubcommandsAndOptionsAtEachLevel) {
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
  EXPECT_EQ(Complete("velmoractl user uid vtuser"), "vtuser1 vtuser2 vtuser3 ");
  EXPECT_EQ(Complete("velmoractl memcached "), "--config --server --socket delete get set ");
  // The word after --config is its value, not a subcommand.
  EXPECT_EQ(Complete("velmoractl memcached --config x s"), "set ");
  EXPECT_EQ(Complete("velmoractl services "), "--help --json --key --role --verbose --version ");
  EXPECT_EQ(Complete("velmoractl kv get "), "alpha.txt beta.txt gamma ");
}

TEST_P(VelmoractlCompletion, CompletesFeatureSwitchesAfterTheirEqualsSign) {
  EXPECT_EQ(Complete("velmoractl features set enable_c"), "enable_calendar= enable_chat= ");
  // bash replaces only the text after "=": the replies are the values.
  EXPECT_EQ(Complete("velmoractl features set enable_chat="), "no yes ");
  EXPECT_EQ(Complete("velmoractl features set enable_chat=y"), "yes ");
  EXPECT_EQ(Complete("velmoractl features set disable_pgp=yes enable_chat=n"), "no ");
  EXPECT_EQ(Complete("velmoractl --json features set enable_chat=x"), "");
}

TEST_P(VelmoractlCompletion, OffersTheSwitchesThatTheToolKnows) {
  // The names that `features get` prints, but custom_logo_version, which
  // is no switch.
  Result got = Tool({"features", "get"});
  ASSERT_EQ(got.status, 0) << got.err;
  std::vector<std::string> names;
  for (const std::string& row : Words(got.out)) {
    const std::string name = row.substr(0, row.find('='));
    if (name != "custom_logo_version") names.push_back(name + "=");
  }
  std::sort(names.begin(), names.end());
  ASSERT_EQ(names.size(), 8u);
  EXPECT_EQ(Complete("velmoractl features set "), Joined(names));
}

TEST_P(VelmoractlCompletion, OffersKeysServicesAndRolesOfTheTable) {
  const std::vector<std::string> smtp = KeysStartingWith("smtp_en");
  ASSERT_FALSE(smtp.empty());
  EXPECT_EQ(Complete("velmoractl route smtp_en"), Joined(smtp));
  EXPECT_EQ(Complete("velmoractl route smtp_enabled smtp_en"), Joined(smtp));
  EXPECT_EQ(Complete("velmoractl get additional_dom"), "additional_domain- ");
  std::vector<std::string> keys = TableKeys();
  EXPECT_EQ(Complete("velmoractl get "), Joined(keys));
  EXPECT_EQ(Complete("velmoractl route --"), "--help --json --verbose --version ");

  EXPECT_EQ(Complete("velmoractl script "), Joined(ScriptServices()));
  EXPECT_EQ(Complete("velmoractl script mailserver_service_d"),
            "mailserver_service_director mailserver_service_dovecot ");
  EXPECT_EQ(Complete("velmoractl script mailserver_service_director "), "");

  EXPECT_EQ(Complete("velmoractl services --role "), Joined(Roles()));
  EXPECT_EQ(Complete("velmoractl services --role ma"), "mailer ");
  EXPECT_EQ(Complete("velmoractl services --role=ma"), "mailer ");
  EXPECT_EQ(Complete("velmoractl services --key "), Joined(Switches()));
  EXPECT_EQ(Complete("velmoractl --json services --key smtp_en"), "smtp_enabled ");
}

TEST_P(VelmoractlCompletion, CompletesTheCommandLineOfLock) {
  EXPECT_EQ(Complete("velmoractl lock "), "alpha.txt beta.txt gamma ");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x --"),
            "-- --help --json --retries --timeout --verbose --version ");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x --timeout "), "");
  // The first word after "--" is a command, listed once.
  EXPECT_EQ(Complete("velmoractl lock /tmp/x -- ech"), "echo ");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x --timeout 5 -- ech"), "echo ");
  // Its arguments are files, whatever they look like.
  EXPECT_EQ(Complete("velmoractl lock /tmp/x -- echo "), "alpha.txt beta.txt gamma ");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x -- echo b"), "beta.txt ");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x -- echo -"), "");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x -- echo --timeout "), "alpha.txt beta.txt gamma ");
  EXPECT_EQ(Complete("velmoractl lock /tmp/x -- echo -- a"), "alpha.txt ");
}

INSTANTIATE_TEST_SUITE_P(Shells, VelmoractlCompletion, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "WithBashCompletion" : "Alone";
                         });

// ---- The completion in an interactive bash ----

// A private tmux server (its socket under a scratch directory) running one
// interactive bash, driven with send-keys and read with capture-pane.
class Terminal {
 public:
  explicit Terminal(const std::string& dir) : dir_(dir) {}
  ~Terminal() {
    if (started_) Run({"kill-server"});
  }

  // Starts `command` in a pane of `columns` x 50.
  bool Start(const std::string& command, int columns) {
    started_ = Run({"-f", "/dev/null", "new-session", "-d", "-s", "t", "-x",
                    std::to_string(columns), "-y", "50", command}) == 0;
    return started_;
  }

  // Sends key names (Tab, C-c, Enter, ...).
  void Keys(const std::vector<std::string>& keys) {
    std::vector<std::string> args{"send-keys", "-t", "t"};
    args.insert(args.end(), keys.begin(), keys.end());
    Run(args);
  }

  // Types `text` as it is.
  void Type(const std::string& text) { Run({"send-keys", "-t", "t", "-l", text}); }

  // The visible lines, without the empty ones below the last text.
  std::string Pane() {
    std::string out;
    Run({"capture-pane", "-p", "-t", "t"}, &out);
    while (out.size() >= 2 && out[out.size() - 1] == '\n' && out[out.size() - 2] == '\n') {
      out.pop_back();
    }
    return out;
  }

  // Polls the pane until `done` holds for it, for at most 10 seconds; true
  // when it did. `pane` is the last one read.
  bool WaitFor(const std::function<bool(const std::string&)>& done, std::string& pane) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
      pane = Pane();
      if (done(pane)) return true;
      if (std::chrono::steady_clock::now() >= deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

 private:
  // Runs tmux on the private socket; its output goes to `out` when given.
  int Run(const std::vector<std::string>& args, std::string* out = nullptr) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return -1;
    const pid_t pid = fork();
    if (pid == 0) {
      dup2(fds[1], 1);
      const int null = open("/dev/null", O_RDWR);
      dup2(null, 0);
      dup2(null, 2);
      setenv("TMUX_TMPDIR", dir_.c_str(), 1);
      unsetenv("TMUX");
      std::vector<char*> argv{const_cast<char*>("tmux"), const_cast<char*>("-L"),
                              const_cast<char*>("velmora-completion")};
      for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      execvp("tmux", argv.data());
      _exit(127);
    }
    close(fds[1]);
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof(buf))) > 0) {
      if (out != nullptr) out->append(buf, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
  }

  std::string dir_;
  bool started_ = false;
};

constexpr char kPrompt[] = "velmora$ ";
// Typed after the keys of a step: once it shows, bash has handled them all.
constexpr char kMarker[] = "|";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) lines.push_back(line);
  return lines;
}

// The positions of the lines that start with the prompt (capture-pane
// drops the blank after it on an empty command line).
std::vector<size_t> PromptLines(const std::vector<std::string>& lines) {
  const std::string bare = std::string(kPrompt).substr(0, sizeof(kPrompt) - 2);
  std::vector<size_t> at;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines[i].compare(0, sizeof(kPrompt) - 1, kPrompt) == 0 || lines[i] == bare) {
      at.push_back(i);
    }
  }
  return at;
}

// What one step left on the screen: the command line (after the prompt,
// without the marker) and the words bash listed above it, if any.
struct Screen {
  std::string line;
  std::vector<std::string> listed;
  std::string pane;
};

// Drives one interactive bash: with `bash_completion`, Debian's
// bash-completion is loaded before the installed completion file.
class VelmoractlInteractive : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    ASSERT_FALSE(scratch_.path().empty());
    const std::string files = scratch_ / "files";
    ASSERT_TRUE(MakeDir(files + "/gamma"));
    ASSERT_TRUE(WriteFile(files + "/alpha.txt", ""));
    ASSERT_TRUE(WriteFile(files + "/beta.txt", ""));
    // No bell, no pager, no question before a long list.
    ASSERT_TRUE(WriteFile(scratch_ / "inputrc",
                          "set bell-style none\nset page-completions off\n"
                          "set completion-query-items 10000\n"));
    const std::string shell =
        "cd " + ShellWord(files) + " && exec env -i HOME=" + ShellWord(scratch_.path()) +
        " TERM=screen PATH=" + ShellWord(ToolDir() + ":/usr/local/bin:/usr/bin:/bin") +
        " INPUTRC=" + ShellWord(scratch_ / "inputrc") +
        " HISTFILE=/dev/null PS1=" + ShellWord(kPrompt) + " bash --norc --noprofile";
    ASSERT_TRUE(terminal_.Start(shell, 250));
    std::string pane;
    ASSERT_TRUE(terminal_.WaitFor(
        [](const std::string& p) { return !PromptLines(Lines(p)).empty(); }, pane))
        << pane;
    const std::string check = GetParam() ? std::string("source ") + kBashCompletion +
                                               " && declare -F _init_completion && echo READY"
                                         : "declare -F _init_completion || echo READY";
    terminal_.Type("source " + ShellWord(VELMORACTL_COMPLETION) + " && " + check);
    terminal_.Keys({"Enter"});
    ASSERT_TRUE(terminal_.WaitFor(
        [](const std::string& p) { return p.find("\nREADY\n") != std::string::npos; }, pane))
        << pane;
    // The function that bash calls for velmoractl is the installed one.
    terminal_.Type("complete -p velmoractl");
    terminal_.Keys({"Enter"});
    ASSERT_TRUE(terminal_.WaitFor(
        [](const std::string& p) {
          return p.find("\ncomplete -F _velmoractl velmoractl\n") != std::string::npos;
        },
        pane))
        << pane;
  }

  // Empties the command line and the screen with readline's own editing
  // keys. Not C-c: the terminal turns it into a SIGINT that bash may act on
  // only after it has read the keys typed next, and then drops the next
  // step's line.
  void Clear() {
    terminal_.Keys({"C-e", "C-u", "C-l"});
    std::string pane;
    ASSERT_TRUE(terminal_.WaitFor(
        [](const std::string& p) {
          const std::vector<std::string> lines = Lines(p);
          size_t used = 0;
          for (size_t i = 0; i < lines.size(); ++i) {
            if (!lines[i].empty()) used = i + 1;
          }
          return used == 1 && lines[0] + " " == kPrompt;
        },
        pane))
        << pane;
  }

  // Types `text`, then presses Tab `tabs` times, then the marker; waits
  // until the marker shows at the end of the command line, reads the
  // screen, and takes the marker back out.
  Screen Step(const std::string& text, int tabs) {
    Screen screen;
    if (!text.empty()) terminal_.Type(text);
    for (int i = 0; i < tabs; ++i) terminal_.Keys({"Tab"});
    terminal_.Type(kMarker);
    const auto current = [](const std::string& p) {
      const std::vector<std::string> lines = Lines(p);
      const std::vector<size_t> prompts = PromptLines(lines);
      return prompts.empty() ? std::string() : lines[prompts.back()];
    };
    const bool shown = terminal_.WaitFor(
        [&current](const std::string& p) {
          const std::string line = current(p);
          return !line.empty() && line.back() == kMarker[0];
        },
        screen.pane);
    EXPECT_TRUE(shown) << "typed '" << text << "' and " << tabs << " tabs:\n" << screen.pane;
    if (!shown) return screen;
    const std::vector<std::string> lines = Lines(screen.pane);
    const std::vector<size_t> prompts = PromptLines(lines);
    const std::string line = lines[prompts.back()];
    screen.line = line.substr(sizeof(kPrompt) - 1, line.size() - sizeof(kPrompt));
    if (prompts.size() >= 2) {
      for (size_t i = prompts[prompts.size() - 2] + 1; i < prompts.back(); ++i) {
        for (const std::string& w : Words(lines[i])) screen.listed.push_back(w);
      }
    }
    std::sort(screen.listed.begin(), screen.listed.end());
    terminal_.Keys({"BSpace"});
    std::string pane;
    EXPECT_TRUE(terminal_.WaitFor(
        [&current](const std::string& p) {
          const std::string line = current(p);
          return line.empty() || line.back() != kMarker[0];
        },
        pane))
        << pane;
    return screen;
  }

  ScratchDir scratch_;
  Terminal terminal_{scratch_.path()};
};

TEST_P(VelmoractlInteractive, CompletesFeatureValuesAfterTheEqualsSign) {
  Clear();
  Screen values = Step("velmoractl features set enable_chat=", 2);
  EXPECT_EQ(values.line, "velmoractl features set enable_chat=") << values.pane;
  EXPECT_THAT(values.listed, ElementsAreArray({"no", "yes"})) << values.pane;
  EXPECT_THAT(values.pane, Not(HasSubstr("==")));
  EXPECT_THAT(values.pane, Not(HasSubstr("enable_chat=enable_chat")));
  Screen yes = Step("y", 1);
  EXPECT_EQ(yes.line, "velmoractl features set enable_chat=yes ") << yes.pane;

  Clear();
  Screen name = Step("velmoractl features set enable_ch", 1);
  // No blank after the "=": the value comes next.
  EXPECT_EQ(name.line, "velmoractl features set enable_chat=") << name.pane;
  Screen no = Step("n", 1);
  EXPECT_EQ(no.line, "velmoractl features set enable_chat=no ") << no.pane;
}

TEST_P(VelmoractlInteractive, CompletesKeysServicesAndRoles) {
  Clear();
  const std::vector<std::string> smtp = KeysStartingWith("smtp_en");
  ASSERT_EQ(smtp.size(), 1u);
  Screen key = Step("velmoractl route smtp_en", 1);
  EXPECT_EQ(key.line, "velmoractl route " + smtp[0] + " ") << key.pane;

  Clear();
  ASSERT_THAT(KeysStartingWith("additional_dom"), ElementsAreArray({"additional_domain-"}));
  Screen family = Step("velmoractl get additional_dom", 1);
  EXPECT_EQ(family.line, "velmoractl get additional_domain-") << family.pane;

  Clear();
  // The services share a prefix: the first Tab inserts it, the next two
  // list them all.
  Screen prefix = Step("velmoractl script ", 2);
  EXPECT_EQ(prefix.line, "velmoractl script mailserver_service_") << prefix.pane;
  Screen services = Step("", 2);
  EXPECT_EQ(services.line, "velmoractl script mailserver_service_") << services.pane;
  EXPECT_THAT(services.listed, ElementsAreArray(ScriptServices())) << services.pane;

  Clear();
  Screen roles = Step("velmoractl services --role ", 2);
  EXPECT_EQ(roles.line, "velmoractl services --role ") << roles.pane;
  EXPECT_THAT(roles.listed, ElementsAreArray(Roles())) << roles.pane;
  Screen mailer = Step("m", 1);
  EXPECT_EQ(mailer.line, "velmoractl services --role mailer ") << mailer.pane;

  Clear();
  Screen switched = Step("velmoractl services --key smtp_en", 1);
  EXPECT_EQ(switched.line, "velmoractl services --key smtp_enabled ") << switched.pane;
}

TEST_P(VelmoractlInteractive, CompletesTheCommandAfterLock) {
  Clear();
  Screen command = Step("velmoractl lock /tmp/x -- ech", 1);
  EXPECT_EQ(command.line, "velmoractl lock /tmp/x -- echo ") << command.pane;
  Screen files = Step("", 2);
  EXPECT_EQ(files.line, "velmoractl lock /tmp/x -- echo ") << files.pane;
  EXPECT_THAT(files.listed, ElementsAreArray({"alpha.txt", "beta.txt", "gamma/"})) << files.pane;
  Screen file = Step("b", 1);
  EXPECT_EQ(file.line, "velmoractl lock /tmp/x -- echo beta.txt ") << file.pane;
  Screen dir = Step("g", 1);
  EXPECT_EQ(dir.line, "velmoractl lock /tmp/x -- echo beta.txt gamma/") << dir.pane;
}

INSTANTIATE_TEST_SUITE_P(Shells, VelmoractlInteractive, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "WithBashCompletion" : "Alone";
                         });

}  // namespace
}  // namespace test
}  // namespace velmora

// Every libc call of every write path, failed one at a time.
//
// For each writer a counting run (nothing failed) gives the number of calls
// it makes to each libc function; then, for every function, every call from
// the first to the last and every errno that the function can really return
// for a rewrite, the writer runs again with exactly that call failing. Each
// run checks that the writer's result matches the file: a reported success
// leaves the new bytes, a reported failure the old ones (or one of the
// documented exceptions listed with the writer), owner and mode as before,
// no other name in the directory, no descriptor left open, no child left,
// and only the log lines that the library writes for such a failure.
//
// The calls are failed through libfiu's POSIX preload (see fiu_injector.h);
// the program re-executes itself with the preload before any test runs.
//
// With $VELMORA_FIU_MATRIX naming a file, the program writes the summary
// table (writer, function, calls, errnos, outcomes) there once every writer
// has run.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <velmora/file.h>
#include <velmora/settings.h>

#include "fault/fiu_injector.h"
#include "gmock/gmock.h"
#include "gtest/gtest.h"
#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace settings_test {
namespace {

namespace fi = velmora::test::fiu;

// ---- Snapshots --------------------------------------------------------------

struct FileState {
  std::optional<std::string> bytes;  // nullopt: no file
  FileMeta meta;
  bool operator==(const FileState& o) const {
    return bytes == o.bytes && meta.uid == o.meta.uid && meta.gid == o.meta.gid &&
           meta.mode == o.meta.mode;
  }
};

FileState StateOf(const std::string& path) {
  FileState s;
  if (PathExists(path)) {
    s.bytes = ReadFile(path);
    s.meta = Meta(path);
  }
  return s;
}

std::string Describe(const FileState& s) {
  if (!s.bytes) return "(no file)";
  char meta[64];
  std::snprintf(meta, sizeof(meta), " uid %u gid %u mode %04o", s.meta.uid, s.meta.gid,
                s.meta.mode);
  return "\"" + *s.bytes + "\"" + meta;
}

std::string BaseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Names in `dir` other than `except`.
std::vector<std::string> OtherNames(const std::string& dir, const std::set<std::string>& except) {
  std::vector<std::string> names;
  for (const auto& n : ListDir(dir)) {
    if (except.count(n) == 0) names.push_back(n);
  }
  return names;
}

// A temporary file's random part, so that its log lines compare exactly.
std::string WithoutTempName(const std::string& text) {
  static const std::regex random_part("-[0-9a-f]{5}-[0-9a-f]{5}-[0-9a-f]{5}-[0-9a-f]{5}\\.tmp");
  return std::regex_replace(text, random_part, "-XXXXX-XXXXX-XXXXX-XXXXX.tmp");
}

std::string TempOf(const std::string& prefix) { return prefix + "-XXXXX-XXXXX-XXXXX-XXXXX.tmp"; }

// ---- Writers ----------------------------------------------------------------

struct LogLine {
  std::string module;
  std::string message;
};

// Another outcome than "success with the new bytes" or "failure with the old
// bytes" that a writer documents, allowed only when one of `points` was the
// failed call and, if `needs` is set, that line was logged.
struct Exception {
  bool ok;
  bool new_bytes;
  std::set<std::string> points;
  std::optional<LogLine> needs;
  std::string label;
};

struct Writer {
  std::string label;
  std::string target;
  std::set<std::string> also_changes;  // names beside the target that may come or go
  std::vector<std::string> dirs;       // whose other names must stay as they were
  std::function<void()> prepare;       // lays out the old state
  std::function<bool()> run;           // true when the writer reports success
  // Lines that a failure may log (at local1.err), given the failed function
  // (its point name) and the injected errno.
  std::function<std::vector<LogLine>(const std::string& point, int err)> lines;
  size_t max_lines = 1;
  std::vector<Exception> exceptions;
};

// The messages of sdk::Rename from `from` to `to` when call `point` failed
// with `e`: the rename's own line; after a failed rename that was taken for
// a cross-device one, the copy's refusal of the existing target; and across
// file systems (`across`) the copy's or the removal's line.
std::vector<LogLine> RenameLines(const std::string& from, const std::string& to,
                                 const std::string& point, int e, bool across = false) {
  const std::string names = from + " -> " + to + " ";
  std::vector<LogLine> lines;
  if (point == "posix/io/dir/rename") {
    lines.push_back({kFilesystemModule, "Rename failed: " + names + std::strerror(e)});
    if (e == EXDEV) {
      lines.push_back({kFilesystemModule, "Rename(by copying) failed while copying: " + names +
                                              std::strerror(EEXIST)});
    }
  } else if (across && point == "posix/io/dir/unlink") {
    lines.push_back({kFilesystemModule,
                     "Rename(by copying) failed while deleting: " + names + std::strerror(e)});
  } else if (across) {
    lines.push_back({kFilesystemModule,
                     "Rename(by copying) failed while copying: " + names + std::strerror(e)});
  }
  return lines;
}

// `line` when `point` is one of `points`, else nothing.
std::vector<LogLine> On(const std::string& point, const std::set<std::string>& points,
                        const LogLine& line) {
  return points.count(point) != 0 ? std::vector<LogLine>{line} : std::vector<LogLine>{};
}

constexpr char kOpen[] = "posix/io/oc/open";
constexpr char kWrite[] = "posix/io/rw/write";
constexpr char kRead[] = "posix/io/rw/read";
constexpr char kClose[] = "posix/io/oc/close";
constexpr char kFsync[] = "posix/io/sync/fsync";
constexpr char kRename[] = "posix/io/dir/rename";
constexpr char kFork[] = "posix/proc/fork";
constexpr char kWaitpid[] = "posix/proc/waitpid";

void Append(std::vector<LogLine>* to, const std::vector<LogLine>& more) {
  to->insert(to->end(), more.begin(), more.end());
}

// ---- The enumeration ----------------------------------------------------------

struct Row {
  std::string writer;
  std::string function;
  int calls = 0;
  size_t errnos = 0;
  std::map<std::string, int> outcomes;
  int runs = 0;
};

std::vector<Row>& Matrix() {
  static std::vector<Row> rows;
  return rows;
}
std::set<std::string>& WritersDone() {
  static std::set<std::string> done;
  return done;
}
constexpr int kWriters = 12;

std::vector<std::string> OpenDescriptors() { return ListDir("/proc/self/fd"); }

// Reaps whatever child the writer did not; returns how many there were.
int ReapLeftovers() {
  int reaped = 0;
  int status;
  while (waitpid(-1, &status, 0) > 0) ++reaped;
  return reaped;
}

struct RunResult {
  bool ok = false;
  FileState after;
  std::vector<int> counts;
};

// One run of `w` with `plan`; checks everything that holds for any run and
// returns the outcome label through `outcome`.
RunResult RunOnce(const Writer& w, const fi::Plan& plan, const FileState* fresh,
                  std::string* outcome) {
  const auto& points = fi::Points();
  const std::string where =
      w.label + ", " +
      (plan.occurrence == 0
           ? std::string("nothing failed")
           : std::string(points[plan.point].function) + " call " + std::to_string(plan.occurrence) +
                 " failing with " + strerrorname_np(plan.err));
  SCOPED_TRACE(where);
  w.prepare();
  const FileState before = StateOf(w.target);
  std::set<std::string> except = w.also_changes;
  except.insert(BaseName(w.target));
  std::vector<std::vector<std::string>> listings;
  for (const auto& d : w.dirs) listings.push_back(OtherNames(d, except));
  const std::vector<std::string> fds = OpenDescriptors();
  LogCapture capture;

  RunResult r;
  fi::Arm(plan);
  r.ok = w.run();
  fi::Disarm();
  r.counts = fi::Counts();
  const int failed = fi::Failed();
  const int leftovers = ReapLeftovers();
  r.after = StateOf(w.target);

  if (plan.occurrence > 0) {
    EXPECT_EQ(failed, 1) << "the planned call was never made";
  }

  // Descriptors. A close (or fclose) that the preload fails never reaches
  // the kernel, which on Linux would have released the descriptor anyway;
  // that one descriptor is the injection's, not a leak, and is closed here.
  std::vector<std::string> now = OpenDescriptors();
  std::vector<std::string> extra;
  std::set_difference(now.begin(), now.end(), fds.begin(), fds.end(), std::back_inserter(extra));
  const bool close_failed =
      plan.occurrence > 0 && (std::strcmp(points[plan.point].name, "posix/io/oc/close") == 0 ||
                              std::strcmp(points[plan.point].name, "posix/stdio/oc/fclose") == 0);
  EXPECT_EQ(extra.size(), close_failed ? 1u : 0u) << "descriptors left open";
  for (const auto& fd : extra) close(std::stoi(fd));

  // Children: only a failed wait may leave one (which the test reaps).
  const bool wait_failed =
      plan.occurrence > 0 && std::string(points[plan.point].name).find("posix/proc/wait") == 0;
  if (!wait_failed) {
    EXPECT_EQ(leftovers, 0) << "children left unreaped";
  }

  // Other names beside the target: none comes or goes.
  for (size_t i = 0; i < w.dirs.size(); ++i) {
    EXPECT_EQ(OtherNames(w.dirs[i], except), listings[i]) << "in " << w.dirs[i];
  }

  // Log lines: only those documented for the failure, at most max_lines.
  std::vector<LogLine> allowed;
  if (plan.occurrence > 0) allowed = w.lines(points[plan.point].name, plan.err);
  const auto records = capture.Records();
  std::set<std::string> seen;
  EXPECT_LE(records.size(), plan.occurrence > 0 ? w.max_lines : 0u);
  for (const auto& rec : records) {
    const std::string text = WithoutTempName(rec.text);
    bool match = false;
    for (const auto& a : allowed) {
      if (rec.priority == kErr && IsModuleLine(text, a.module, a.message)) {
        match = true;
        seen.insert(a.module + " " + a.message);
      }
    }
    EXPECT_TRUE(match) << "unexpected log line <" << rec.priority << "> " << rec.text;
  }

  // Result against the file.
  if (fresh == nullptr) return r;
  const bool is_new = r.after == *fresh;
  const bool is_old = r.after == before;
  if (r.ok && is_new) {
    *outcome = "success with new bytes";
  } else if (!r.ok && is_old) {
    *outcome = "reported failure with old bytes";
  } else {
    outcome->clear();
    for (const auto& e : w.exceptions) {
      if (e.ok != r.ok || (e.new_bytes ? !is_new : !is_old)) continue;
      if (plan.occurrence == 0 || e.points.count(points[plan.point].name) == 0) continue;
      if (e.needs && seen.count(e.needs->module + " " + e.needs->message) == 0) continue;
      *outcome = e.label;
      break;
    }
    EXPECT_FALSE(outcome->empty())
        << (r.ok ? "reported success" : "reported failure") << " with " << Describe(r.after)
        << "; before: " << Describe(before) << "; new: " << Describe(*fresh);
    if (outcome->empty()) *outcome = "UNEXPECTED";
  }
  return r;
}

// Runs the whole enumeration for `w` and adds its rows to the matrix.
void Enumerate(const Writer& w) {
  const auto& points = fi::Points();
  std::string unused;
  const RunResult clean = RunOnce(w, fi::Plan{}, nullptr, &unused);
  ASSERT_TRUE(clean.ok) << w.label << " fails without any injected failure";
  const FileState fresh = clean.after;
  // The enumeration relies on the same calls in the same order every time.
  const RunResult again = RunOnce(w, fi::Plan{}, nullptr, &unused);
  ASSERT_EQ(again.counts, clean.counts) << w.label << " makes a different number of calls";
  ASSERT_EQ(again.after, fresh);
  w.prepare();
  ASSERT_FALSE(StateOf(w.target) == fresh) << "old and new state of " << w.label << " are equal";

  for (size_t p = 0; p < points.size(); ++p) {
    if (clean.counts[p] == 0) continue;
    ASSERT_FALSE(points[p].errnos.empty()) << points[p].name << " has no errno to try";
    Row row;
    row.writer = w.label;
    row.function = points[p].function;
    row.calls = clean.counts[p];
    row.errnos = points[p].errnos.size();
    for (int n = 1; n <= clean.counts[p]; ++n) {
      for (const auto& choice : points[p].errnos) {
        std::string outcome;
        RunOnce(w, fi::Plan{p, n, choice.err}, &fresh, &outcome);
        ++row.outcomes[outcome];
        ++row.runs;
        if (testing::Test::HasFatalFailure()) return;
      }
    }
    Matrix().push_back(row);
  }
  WritersDone().insert(w.label);
}

std::string StrError(int e) { return std::strerror(e); }

// ---- Fixture ------------------------------------------------------------------

constexpr char kUser1Dir[] = "/var/spool/mail/vt/1001/61001/.ORVOQB";
constexpr char kControlText[] = "poll pop.example.net proto pop3\nset daemon 300\n";

// Removes every name in `dir` (not below it).
void EmptyDir(const std::string& dir) {
  for (const auto& n : ListDir(dir)) unlink((dir + "/" + n).c_str());
}

// Before main: the program re-executes itself with the preload at once.
std::string preload_problem;
const bool preloaded = fi::EnsurePreloaded(&preload_problem);

class FiuWritePathsTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(preloaded) << preload_problem;
    ResetSystemTree();
    ASSERT_TRUE(InstallBackendStandIn());
    ASSERT_TRUE(InstallFetchmailStandIn());
    ASSERT_TRUE(MakeDir(kSettingsDir));
    ASSERT_TRUE(MakeDir(kUidListDir));
    ASSERT_TRUE(MakeDir(kLockDir));
    ASSERT_TRUE(MakeDir(kUser1Dir, kUser1, kUser1, 0700));
    ASSERT_FALSE(scratch_.path().empty());
    // The C library keeps its connection to /dev/log open from the first
    // line on; open it now so that it is not counted as the writer's.
    syslog(LOG_LOCAL1 | LOG_DEBUG, "fiu write path enumeration");
  }
  void TearDown() override { EXPECT_TRUE(NoChildLeft()); }

  ScratchDir scratch_;
};

// The preload fails exactly the planned call, with the planned errno, and
// lets the others through.
TEST_F(FiuWritePathsTest, PreloadFailsTheChosenCallWithTheChosenErrno) {
  const std::string path = scratch_ / "probe";
  size_t open_point = 0;
  while (std::strcmp(fi::Points()[open_point].name, "posix/io/oc/open") != 0) ++open_point;
  fi::Arm(fi::Plan{open_point, 2, EROFS});
  int first = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
  const int second = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int second_errno = errno;
  const int third = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  fi::Disarm();
  EXPECT_GE(first, 0);
  EXPECT_EQ(second, -1);
  EXPECT_EQ(second_errno, EROFS);
  EXPECT_GE(third, 0);
  EXPECT_EQ(fi::Counts()[open_point], 3);
  EXPECT_EQ(fi::Failed(), 1);
  // A child's calls are neither counted nor failed.
  fi::Arm(fi::Plan{open_point, 1, EACCES});
  const int child = InChild([&path] { return open(path.c_str(), O_RDONLY | O_CLOEXEC) >= 0; });
  fi::Disarm();
  EXPECT_EQ(child, 1);
  EXPECT_EQ(fi::Counts()[open_point], 0);
  close(first);
  close(third);
}

TEST_F(FiuWritePathsTest, TempFileMoveToOnOneFileSystem) {
  const std::string dir = scratch_ / "same";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string target = dir + "/t.conf";
  Writer w;
  w.label = "`TempFile` + `MoveTo`, one file system";
  w.target = target;
  w.dirs = {dir};
  w.prepare = [=] {
    EmptyDir(dir);
    ASSERT_TRUE(WriteOwned(target, "old=1\n", kUser1, kShared, 0640));
  };
  w.run = [=] {
    sdk::TempFile temp(target);
    temp.WriteLine("new=2");
    if (temp.Chown(kUser1, kShared) != 0 || temp.Chmod(0640) != 0) return false;
    return temp.MoveTo(target) == 0;
  };
  w.lines = [=](const std::string& point, int e) {
    return RenameLines(TempOf(target), target, point, e);
  };
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, TempFileMoveToAcrossFileSystems) {
  ASSERT_TRUE(scratch_.MountTmpfs("from"));
  ASSERT_TRUE(scratch_.MountTmpfs("to"));
  const std::string from_dir = scratch_ / "from";
  const std::string to_dir = scratch_ / "to";
  const std::string prefix = from_dir + "/t.conf";
  const std::string target = to_dir + "/t.conf";
  Writer w;
  // Across file systems the move copies, which never replaces a file: the
  // target does not exist beforehand.
  w.label = "`TempFile` + `MoveTo`, across file systems (new target)";
  w.target = target;
  w.dirs = {from_dir, to_dir};
  w.prepare = [=] {
    EmptyDir(from_dir);
    EmptyDir(to_dir);
  };
  w.run = [=] {
    sdk::TempFile temp(prefix);
    temp.WriteLine("new=2");
    if (temp.Chmod(0640) != 0) return false;
    return temp.MoveTo(target) == 0;
  };
  w.lines = [=](const std::string& point, int e) {
    return RenameLines(TempOf(prefix), target, point, e, true);
  };
  for (int e : {EBUSY, EIO, EROFS}) {
    w.exceptions.push_back(
        {false,
         true,
         {"posix/io/dir/unlink"},
         LogLine{kFilesystemModule, "Rename(by copying) failed while deleting: " + TempOf(prefix) +
                                        " -> " + target + " " + StrError(e)},
         "reported failure with the copy in place (source not removed)"});
  }
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, RenameOnOneFileSystem) {
  const std::string dir = scratch_ / "rename";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string from = dir + "/new.conf";
  const std::string target = dir + "/t.conf";
  Writer w;
  w.label = "`sdk::Rename`";
  w.target = target;
  w.also_changes = {"new.conf"};
  w.dirs = {dir};
  w.prepare = [=] {
    EmptyDir(dir);
    ASSERT_TRUE(WriteOwned(target, "old=1\n", kUser1, kShared, 0640));
    ASSERT_TRUE(WriteOwned(from, "new=2\n", kUser1, kShared, 0640));
  };
  w.run = [=] { return sdk::Rename(from, target) == 0; };
  w.lines = [=](const std::string& point, int e) { return RenameLines(from, target, point, e); };
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, CopyFileOnOneFileSystem) {
  const std::string dir = scratch_ / "copy";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string from = dir + "/new.conf";
  const std::string target = dir + "/t.conf";
  Writer w;
  w.label = "`CopyFile` (new target)";
  w.target = target;
  w.also_changes = {"new.conf"};
  w.dirs = {dir};
  w.prepare = [=] {
    EmptyDir(dir);
    ASSERT_TRUE(WriteOwned(from, "new=2\n", kUser1, kShared, 0640));
  };
  w.run = [=] { return sdk::CopyFile(from, target) == 0; };
  w.lines = [=](const std::string&, int e) {
    return std::vector<LogLine>{
        {kFilesystemModule, "Failed to CopyFile: " + from + " -> " + target + " " + StrError(e)}};
  };
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, CopyFileAcrossFileSystems) {
  ASSERT_TRUE(scratch_.MountTmpfs("cfrom"));
  ASSERT_TRUE(scratch_.MountTmpfs("cto"));
  const std::string from = scratch_ / "cfrom/new.conf";
  const std::string to_dir = scratch_ / "cto";
  const std::string target = to_dir + "/t.conf";
  Writer w;
  w.label = "`CopyFile` across file systems (new target)";
  w.target = target;
  w.dirs = {to_dir};
  w.prepare = [=] {
    EmptyDir(to_dir);
    ASSERT_TRUE(WriteOwned(from, "new=2\n", kUser1, kShared, 0640));
  };
  w.run = [=] { return sdk::CopyFile(from, target) == 0; };
  w.lines = [=](const std::string&, int e) {
    return std::vector<LogLine>{
        {kFilesystemModule, "Failed to CopyFile: " + from + " -> " + target + " " + StrError(e)}};
  };
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, FileKeyValueWrite) {
  const std::string dir = scratch_ / "kv";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string target = dir + "/k.conf";
  Writer w;
  w.label = "`FileKeyValue::Write`";
  w.target = target;
  w.dirs = {dir};
  w.prepare = [=] {
    EmptyDir(dir);
    ASSERT_TRUE(WriteOwned(target, "a=1\nb=2\n", kUser1, kShared, 0640));
  };
  w.run = [=] {
    sdk::FileKeyValue file(target);
    // The read is outside the writer, but its calls are counted with it.
    return file.ReadKeyValues(64, "=") && file.Update("b", "3") && file.Write();
  };
  w.lines = [=](const std::string& point, int e) {
    std::vector<LogLine> lines = RenameLines(TempOf(target), target, point, e);
    // The temporary file could not be made or filled; or it could not be
    // flushed, closed or renamed.
    Append(&lines,
           On(point, {kOpen, kWrite, kClose}, {kKeyValueModule, "initialize temp file failed"}));
    Append(&lines, On(point, {kFsync, kClose, kRename},
                      {kKeyValueModule, "Move temp file to " + target + " fail"}));
    return lines;
  };
  w.max_lines = 2;
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, SetVelmoraConfig) {
  Writer w;
  w.label = "`SetVelmoraConfig`";
  w.target = kClientConf;
  w.dirs = {kSettingsDir};
  w.prepare = [=] {
    EmptyDir(kSettingsDir);
    ASSERT_TRUE(WriteOwned(kClientConf, "theme=dark\nenable_chat=no\n", kAccount, kAccount, 0644));
    ASSERT_TRUE(WriteFile(kBackendCalls, "", 0666));
  };
  w.run = [] {
    VelmoraConfig c{};
    c.enable_chat = true;
    return settings::SetVelmoraConfig(c);
  };
  w.lines = [](const std::string& point, int e) {
    std::vector<LogLine> lines = RenameLines(TempOf(kClientConf), kClientConf, point, e);
    Append(&lines,
           On(point, {kOpen, kWrite, kClose}, {kKeyValueModule, "initialize temp file failed"}));
    Append(&lines,
           On(point, {kFsync, kClose, kRename},
              {kKeyValueModule, "Move temp file to " + std::string(kClientConf) + " fail"}));
    return lines;
  };
  w.max_lines = 2;
  w.exceptions = {{false,
                   true,
                   {"posix/proc/waitpid"},
                   std::nullopt,
                   "reported failure with new bytes (propagation not waited for)"}};
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, SetPOP3Config) {
  Pop3Control control("vt");
  Writer w;
  w.label = "`SetPOP3Config`";
  w.target = kSwitchFile;
  w.dirs = {kSettingsDir};
  w.prepare = [=] {
    EmptyDir(kSettingsDir);
    ASSERT_TRUE(WriteOwned(kSwitchFile, "true\n5\n", kAccount, kAccount, 0644));
    ASSERT_TRUE(WriteFile(kBackendCalls, "", 0666));
  };
  w.run = [control] { return control.SetPOP3Config(GlobalPOP3Config{false, 10}); };
  w.lines = [](const std::string& point, int e) {
    // A line that could not be written, flushed or closed fails MoveTo
    // without a line.
    std::vector<LogLine> lines = RenameLines(TempOf(kSwitchFile), kSwitchFile, point, e);
    Append(&lines, On(point, {kOpen}, {kSettingsModule, "initialize temp file failed"}));
    return lines;
  };
  w.exceptions = {{false,
                   true,
                   {"posix/proc/waitpid"},
                   std::nullopt,
                   "reported failure with new bytes (propagation not waited for)"}};
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, TrackStop) {
  Pop3Control control("vt");
  Writer w;
  w.label = "`TrackStop`";
  w.target = kUidList;
  w.dirs = {kUidListDir};
  w.prepare = [=] {
    EmptyDir(kUidListDir);
    ASSERT_TRUE(WriteOwned(kUidList, "61001\n61002\n", kAccount, kAccount, 0644));
    ASSERT_TRUE(WriteFile(kBackendCalls, "", 0666));
  };
  w.run = [control] {
    std::set<uint32_t> tracked = {kUser1, kUser2};
    return control.TrackStop({kUser1}, tracked);
  };
  w.lines = [](const std::string& point, int e) {
    std::vector<LogLine> lines = RenameLines(TempOf(kUidList), kUidList, point, e);
    Append(&lines, On(point, {kOpen}, {kSettingsModule, "initialize temp file failed"}));
    Append(&lines, On(point, {kFork},
                      {kSettingsModule, "Fork child to change user to run POP3Daemon error"}));
    Append(&lines, On(point, {kWaitpid}, {kSettingsModule, "Wait child fail"}));
    Append(&lines,
           On(point, {kFork, kWaitpid}, {kSettingsModule, "Stop 61001 fetchmail daemon fail"}));
    return lines;
  };
  w.max_lines = 2;
  w.exceptions = {{false,
                   true,
                   {"posix/proc/waitpid"},
                   std::nullopt,
                   "reported failure with new bytes (propagation not waited for)"},
                  {true,
                   false,
                   {"posix/proc/fork", "posix/proc/waitpid"},
                   LogLine{kSettingsModule, "Stop 61001 fetchmail daemon fail"},
                   "success, list rewritten unchanged (the stop failed, uid kept)"}};
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, TrackStart) {
  Pop3Control control("vt");
  Writer w;
  w.label = "`TrackStart` (append)";
  w.target = kUidList;
  w.dirs = {kUidListDir};
  w.prepare = [=] {
    EmptyDir(kUidListDir);
    ASSERT_TRUE(WriteOwned(kUidList, "61002\n", kAccount, kAccount, 0644));
    ASSERT_TRUE(WriteOwned(kUser1Rc, kControlText, kUser1, kShared, 0600));
    ASSERT_TRUE(WriteFile(kBackendCalls, "", 0666));
  };
  w.run = [control] {
    std::set<uint32_t> tracked = {kUser2};
    return control.TrackStart({kUser1}, tracked, 300);
  };
  w.lines = [](const std::string& point, int) {
    std::vector<LogLine> lines =
        On(point, {kOpen}, {kSettingsModule, "fail open pop3_uid.config file"});
    Append(&lines, On(point, {kFork},
                      {kSettingsModule, "Fork child to change user to run POP3Daemon error"}));
    Append(&lines, On(point, {kWaitpid}, {kSettingsModule, "Wait child fail"}));
    Append(&lines,
           On(point, {kFork, kWaitpid}, {kSettingsModule, "Start 61001 fetch mail daemon fail"}));
    return lines;
  };
  w.max_lines = 2;
  // An append is not a replacement: once the line is written, a later
  // failure (closing the list, waiting for the propagation) is reported with
  // the line in place.
  w.exceptions = {{false,
                   true,
                   {"posix/proc/waitpid", "posix/io/oc/close"},
                   std::nullopt,
                   "reported failure with the line appended (close or propagation failed)"}};
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, ModifyFetchmailrc) {
  Pop3Control control("vt");
  Writer w;
  w.label = "`ModifyFetchmailrc`";
  w.target = kUser1Rc;
  w.dirs = {kUser1Dir};
  w.prepare = [=] {
    EmptyDir(kUser1Dir);
    ASSERT_TRUE(WriteOwned(kUser1Rc, kControlText, kUser1, kShared, 0600));
  };
  w.run = [control] { return control.ModifyFetchmailrc(kUser1, 600); };
  w.lines = [](const std::string& point, int e) {
    std::vector<LogLine> lines = RenameLines(TempOf(kUser1Rc), kUser1Rc, point, e);
    Append(&lines, On(point, {kOpen}, {kSettingsModule, "initialize temp file failed"}));
    Append(&lines,
           On(point, {kOpen, kRead}, {kSettingsModule, "fail open quillbox pop3 fetch file"}));
    return lines;
  };
  Enumerate(w);
}

TEST_F(FiuWritePathsTest, ExclusiveFileLockGuard) {
  const std::string lock = std::string(kLockDir) + "/vt_pop3.lock";
  Writer w;
  w.label = "`ExclusiveFileLockGuard` (new lock file, 1 retry)";
  w.target = lock;
  w.dirs = {kLockDir};
  w.prepare = [=] { EmptyDir(kLockDir); };
  w.run = [=] {
    sdk::ExclusiveFileLockGuard guard(lock, 1);
    return guard.fd_ >= 0;
  };
  w.lines = [=](const std::string& point, int) {
    std::vector<LogLine> lines = On(point, {kOpen}, {kLockModule, "Open file(" + lock + ") fail"});
    Append(&lines, On(point, {kClose}, {kLockModule, "Close file (" + lock + ") fail"}));
    Append(&lines,
           On(point, {kClose}, {kLockModule, "Release lock fail when guard destruct: " + lock}));
    return lines;
  };
  w.max_lines = 2;
  Enumerate(w);
}

// ---- Clean-up calls that fail ------------------------------------------------

size_t PointIndex(const char* name) {
  size_t i = 0;
  while (std::strcmp(fi::Points()[i].name, name) != 0) ++i;
  return i;
}

// Across file systems Boost's copy creates the target before it reports
// EXDEV; when removing that empty file fails once, the removal is tried
// again and the copy goes on.
TEST_F(FiuWritePathsTest, CopyAcrossFileSystemsRetriesTheRemovalOfBoostsEmptyTarget) {
  ASSERT_TRUE(scratch_.MountTmpfs("a"));
  ASSERT_TRUE(scratch_.MountTmpfs("b"));
  const std::string from = scratch_ / "a/new.conf";
  const std::string to = scratch_ / "b/t.conf";
  ASSERT_TRUE(WriteOwned(from, "new=2\n", kUser1, kShared, 0640));
  fi::Arm(fi::Plan{PointIndex("posix/io/dir/unlink"), 1, EIO});
  const int rc = sdk::CopyFile(from, to);
  fi::Disarm();
  EXPECT_EQ(fi::Failed(), 1);
  EXPECT_EQ(rc, 0);
  EXPECT_EQ(ReadFile(to), "new=2\n");
  EXPECT_EQ(Meta(to).mode, 0640u);
}

// A copy whose flush fails reports the failure and leaves no target.
TEST_F(FiuWritePathsTest, CopyFileWhoseFlushFailsLeavesNoTarget) {
  const std::string from = scratch_ / "new.conf";
  const std::string to = scratch_ / "t.conf";
  ASSERT_TRUE(WriteOwned(from, "new=2\n", kUser1, kShared, 0640));
  fi::Arm(fi::Plan{PointIndex("posix/io/sync/fdatasync"), 1, EIO});
  const int rc = sdk::CopyFile(from, to);
  fi::Disarm();
  EXPECT_EQ(fi::Failed(), 1);
  EXPECT_EQ(rc, -1);
  EXPECT_FALSE(PathExists(to));
  EXPECT_EQ(ReadFile(from), "new=2\n");
}

// A temporary file that could not be moved (its target is a directory) is
// removed although the first unlink fails.
TEST_F(FiuWritePathsTest, TempFileThatWasNotMovedIsRemovedAlthoughTheFirstUnlinkFails) {
  const std::string dir = scratch_ / "d";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  const std::string target = dir + "/busy";
  ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
  ASSERT_TRUE(WriteFile(target + "/inside", "x", 0644));
  {
    sdk::TempFile temp(dir + "/t.conf");
    ASSERT_TRUE(temp.valid_);
    temp.WriteLine("new=2");
    EXPECT_NE(temp.MoveTo(target), 0);
    fi::Arm(fi::Plan{PointIndex("posix/io/dir/unlink"), 1, EIO});
  }
  fi::Disarm();
  EXPECT_EQ(fi::Failed(), 1);
  EXPECT_THAT(ListDir(dir), testing::ElementsAre("busy"));
}

// Writes the matrix once every writer has run.
class MatrixWriter : public testing::Environment {
 public:
  // A table of an earlier run never survives a run that does not finish.
  void SetUp() override {
    const char* out = std::getenv("VELMORA_FIU_MATRIX");
    if (out != nullptr) unlink(out);
  }
  void TearDown() override {
    const char* out = std::getenv("VELMORA_FIU_MATRIX");
    if (out == nullptr || WritersDone().size() != kWriters) return;
    std::ofstream file(out);
    file << "| write path | function | calls | errnos | runs | outcomes |\n"
         << "|---|---|---|---|---|---|\n";
    for (const Row& row : Matrix()) {
      file << "| " << row.writer << " | `" << row.function << "` | " << row.calls << " | "
           << row.errnos << " | " << row.runs << " | ";
      bool first = true;
      for (const auto& [label, count] : row.outcomes) {
        file << (first ? "" : "; ") << count << " " << label;
        first = false;
      }
      file << " |\n";
    }
  }
};
const testing::Environment* const matrix_writer =
    testing::AddGlobalTestEnvironment(new MatrixWriter);

}  // namespace
}  // namespace settings_test
}  // namespace test
}  // namespace velmora

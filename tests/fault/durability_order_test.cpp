// The order in which each write path reaches the disk, read from a system
// call trace: the driver program performs one write path under
// `strace -ff` (one trace file per process), and the test follows every
// descriptor by number from the open that returned it to its close.
//
// A rewrite through a temporary file must show, in the library's own
// process: every write of the temporary file, then an fsync of it, then its
// close, then the rename over the target, then an open of the target's
// directory and an fsync on that descriptor. Every open of these files
// carries O_CLOEXEC. Helper programs (the back-end tool, fetchmail) are
// left out: only processes that did not exec another program are looked at.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "fault/crash_write_paths.h"
#include "gtest/gtest.h"
#include "support/test_util.h"

namespace velmora {
namespace test {
namespace crash {
namespace {

// One system call of a trace line "name(arg, arg, ...) = result ...".
struct SysCall {
  std::string name;
  std::vector<std::string> args;
  long long result = 0;
  std::string error;  // "EXDEV" and the like when the result is -1
  std::string line;
};

// Splits a trace line; false for lines that are not a finished call
// (signals, exits).
bool ParseLine(const std::string& line, SysCall* call) {
  const size_t open = line.find('(');
  if (open == std::string::npos || open == 0) return false;
  for (size_t k = 0; k < open; ++k) {
    if (!(std::isalnum(static_cast<unsigned char>(line[k])) || line[k] == '_')) return false;
  }
  call->name = line.substr(0, open);
  call->args.clear();
  call->line = line;
  int depth = 0;
  bool quoted = false;
  std::string arg;
  size_t k = open + 1;
  for (; k < line.size(); ++k) {
    const char c = line[k];
    if (quoted) {
      arg.push_back(c);
      if (c == '\\' && k + 1 < line.size()) {
        arg.push_back(line[++k]);
      } else if (c == '"') {
        quoted = false;
      }
      continue;
    }
    if (c == '"') {
      quoted = true;
      arg.push_back(c);
    } else if (c == '(' || c == '[' || c == '{') {
      ++depth;
      arg.push_back(c);
    } else if ((c == ')' || c == ']' || c == '}') && depth > 0) {
      --depth;
      arg.push_back(c);
    } else if (c == ')') {
      break;
    } else if (c == ',' && depth == 0) {
      call->args.push_back(arg);
      arg.clear();
      if (k + 1 < line.size() && line[k + 1] == ' ') ++k;
    } else {
      arg.push_back(c);
    }
  }
  if (k >= line.size()) return false;
  if (!arg.empty() || !call->args.empty()) call->args.push_back(arg);
  const size_t equals = line.find("= ", k);
  if (equals == std::string::npos) return false;
  std::istringstream rest(line.substr(equals + 2));
  std::string result;
  rest >> result;
  if (result == "?") return false;
  call->result = std::strtoll(result.c_str(), nullptr, 0);
  if (call->result == -1) rest >> call->error;
  return true;
}

// The text of a quoted string argument.
std::string Unquote(const std::string& arg) {
  if (arg.size() < 2 || arg.front() != '"') return arg;
  std::string text;
  for (size_t k = 1; k < arg.size() && arg[k] != '"'; ++k) {
    if (arg[k] == '\\' && k + 1 < arg.size()) ++k;
    text.push_back(arg[k]);
  }
  return text;
}

bool HasFlag(const std::string& flags, const std::string& flag) {
  std::istringstream in(flags);
  std::string part;
  while (std::getline(in, part, '|')) {
    if (part == flag) return true;
  }
  return false;
}

// What a call did to a file, with descriptors resolved to paths.
struct Op {
  enum Kind { kOpen, kWrite, kSync, kClose, kRename, kUnlink, kMarker } kind;
  std::string path;  // the file (kRename: the source)
  std::string to;    // kRename: the target
  std::string flags;
  int fd = -1;
  bool ok = true;
  std::string error;
  std::string line;
};

// One process of the trace.
struct Process {
  std::string pid;
  std::string exec;  // the program it exec'd, if any
  std::vector<Op> ops;
};

// What the driver writes to descriptor -1 right before it calls the library.
constexpr char kDriverMarker[] = "write path";

int FdArg(const SysCall& call, size_t k) {
  return k < call.args.size() ? std::atoi(call.args[k].c_str()) : -1;
}

Process ReadProcess(const std::string& file) {
  Process process;
  process.pid = file.substr(file.rfind('.') + 1);
  std::map<int, std::string> fds;
  std::istringstream in(ReadFile(file));
  std::string line;
  SysCall call;
  while (std::getline(in, line)) {
    if (!ParseLine(line, &call)) continue;
    const std::string& n = call.name;
    Op op;
    op.line = line;
    op.ok = call.result >= 0;
    op.error = call.error;
    if (n == "execve") {
      if (op.ok && process.exec.empty()) process.exec = Unquote(call.args[0]);
      continue;
    }
    if (n == "open" || n == "openat" || n == "creat") {
      const size_t at = n == "openat" ? 1 : 0;
      op.kind = Op::kOpen;
      op.path = Unquote(call.args.at(at));
      op.flags = n == "creat" ? "O_WRONLY|O_CREAT|O_TRUNC" : call.args.at(at + 1);
      op.fd = static_cast<int>(call.result);
      if (op.ok) fds[op.fd] = op.path;
    } else if (n == "dup" || n == "dup2" || n == "dup3" ||
               (n == "fcntl" && call.args.size() > 1 &&
                call.args[1].compare(0, 7, "F_DUPFD") == 0)) {
      if (op.ok) fds[static_cast<int>(call.result)] = fds[FdArg(call, 0)];
      continue;
    } else if (n == "write" || n == "pwrite64" || n == "writev" || n == "pwritev" ||
               n == "copy_file_range" || n == "sendfile") {
      op.kind = Op::kWrite;
      op.fd = n == "copy_file_range" ? FdArg(call, 2) : FdArg(call, 0);
      if (op.fd == -1 && call.args.size() > 1 && Unquote(call.args[1]) == kDriverMarker) {
        op.kind = Op::kMarker;
      }
      op.path = fds[op.fd];
    } else if (n == "fsync" || n == "fdatasync") {
      op.kind = Op::kSync;
      op.fd = FdArg(call, 0);
      op.path = fds[op.fd];
    } else if (n == "close") {
      op.kind = Op::kClose;
      op.fd = FdArg(call, 0);
      op.path = fds[op.fd];
      fds.erase(op.fd);
    } else if (n == "rename" || n == "renameat" || n == "renameat2") {
      op.kind = Op::kRename;
      op.path = Unquote(call.args.at(n == "rename" ? 0 : 1));
      op.to = Unquote(call.args.at(n == "rename" ? 1 : 3));
    } else if (n == "unlink" || n == "unlinkat") {
      op.kind = Op::kUnlink;
      op.path = Unquote(call.args.at(n == "unlink" ? 0 : 1));
    } else {
      continue;
    }
    process.ops.push_back(op);
  }
  return process;
}

std::string Show(const std::vector<Op>& ops, const std::string& a, const std::string& b,
                 const std::string& c) {
  std::string text;
  for (size_t k = 0; k < ops.size(); ++k) {
    const Op& op = ops[k];
    auto is = [](const std::string& path, const std::string& wanted) {
      return !wanted.empty() && path == wanted;
    };
    if (is(op.path, a) || is(op.path, b) || is(op.path, c) || is(op.to, a) || is(op.to, b)) {
      text += "  #" + std::to_string(k) + " " + op.line + "\n";
    }
  }
  return text;
}

// Checks one rewrite of `target` through a temporary file in `ops`: the
// first successful rename onto `target` at or after `from`. Returns the
// index after that rewrite's directory sync through *end.
testing::AssertionResult AtomicReplace(const std::vector<Op>& ops, const std::string& target,
                                       size_t from = 0, size_t* end = nullptr) {
  const std::string dir = Dirname(target);
  size_t rename = ops.size();
  for (size_t k = from; k < ops.size() && rename == ops.size(); ++k) {
    if (ops[k].kind == Op::kRename && ops[k].ok && ops[k].to == target) rename = k;
  }
  if (rename == ops.size()) return testing::AssertionFailure() << "no rename onto " << target;
  const std::string temp = ops[rename].path;
  const std::string trace = Show(ops, temp, target, dir);
  if (Dirname(temp) != dir || !IsTempName(Basename(temp), Basename(target))) {
    return testing::AssertionFailure() << "renamed from " << temp << ", not a temporary file "
                                       << "beside the target\n"
                                       << trace;
  }
  // The temporary file's life, from its creation to the rename.
  size_t created = ops.size();
  size_t last_write = ops.size();
  for (size_t k = from; k < rename; ++k) {
    if (ops[k].path != temp) continue;
    if (ops[k].kind == Op::kOpen && ops[k].ok && HasFlag(ops[k].flags, "O_CREAT") &&
        created == ops.size()) {
      created = k;
    }
    if (ops[k].kind == Op::kOpen && !HasFlag(ops[k].flags, "O_CLOEXEC")) {
      return testing::AssertionFailure() << "#" << k << " opens without O_CLOEXEC\n" << trace;
    }
    if (ops[k].kind == Op::kWrite) last_write = k;
  }
  if (created == ops.size()) {
    return testing::AssertionFailure() << "the temporary file was never created\n" << trace;
  }
  // Made exclusively, and written only through the descriptor that made it:
  // never opened again by name.
  if (!HasFlag(ops[created].flags, "O_EXCL")) {
    return testing::AssertionFailure() << "#" << created << " creates without O_EXCL\n" << trace;
  }
  for (size_t k = created + 1; k < rename; ++k) {
    if (ops[k].path != temp) continue;
    if (ops[k].kind == Op::kOpen || (ops[k].kind == Op::kWrite && ops[k].fd != ops[created].fd)) {
      return testing::AssertionFailure()
             << "#" << k << " reaches the temporary file through another descriptor\n"
             << trace;
    }
  }
  if (last_write == ops.size()) {
    return testing::AssertionFailure() << "nothing written to the temporary file\n" << trace;
  }
  size_t sync = ops.size();
  for (size_t k = last_write + 1; k < rename && sync == ops.size(); ++k) {
    if (ops[k].kind == Op::kSync && ops[k].path == temp && ops[k].ok) sync = k;
  }
  if (sync == ops.size()) {
    return testing::AssertionFailure() << "no fsync of the temporary file between its last write "
                                       << "#" << last_write << " and the rename #" << rename << "\n"
                                       << trace;
  }
  // Every descriptor of the temporary file is closed before the rename, the
  // synced one after its fsync.
  std::map<int, size_t> open_fds;
  bool synced_fd_closed_after = false;
  for (size_t k = created; k < rename; ++k) {
    if (ops[k].path != temp) continue;
    if (ops[k].kind == Op::kOpen && ops[k].ok) open_fds[ops[k].fd] = k;
    if (ops[k].kind == Op::kClose) {
      open_fds.erase(ops[k].fd);
      if (ops[k].fd == ops[sync].fd && k > sync) synced_fd_closed_after = true;
    }
  }
  if (!open_fds.empty() || !synced_fd_closed_after) {
    return testing::AssertionFailure() << "the temporary file is not closed after its fsync #"
                                       << sync << " and before the rename #" << rename << "\n"
                                       << trace;
  }
  // Then the directory: opened, synced through that descriptor.
  size_t dir_open = ops.size();
  size_t dir_sync = ops.size();
  for (size_t k = rename + 1; k < ops.size() && dir_sync == ops.size(); ++k) {
    if (ops[k].kind == Op::kOpen && ops[k].ok && ops[k].path == dir) {
      if (!HasFlag(ops[k].flags, "O_DIRECTORY") || !HasFlag(ops[k].flags, "O_CLOEXEC")) {
        return testing::AssertionFailure() << "#" << k << " opens the directory without "
                                           << "O_DIRECTORY|O_CLOEXEC\n"
                                           << trace;
      }
      dir_open = k;
    }
    if (dir_open != ops.size() && ops[k].kind == Op::kSync && ops[k].ok &&
        ops[k].fd == ops[dir_open].fd) {
      dir_sync = k;
    }
  }
  if (dir_sync == ops.size()) {
    return testing::AssertionFailure()
           << "no fsync of " << dir << " after the rename #" << rename << "\n"
           << trace;
  }
  // Reads of the target (the old contents) are close-on-exec too.
  for (size_t k = from; k <= dir_sync; ++k) {
    if (ops[k].kind == Op::kOpen && ops[k].path == target && !HasFlag(ops[k].flags, "O_CLOEXEC")) {
      return testing::AssertionFailure() << "#" << k << " opens the target without O_CLOEXEC\n"
                                         << trace;
    }
  }
  if (end != nullptr) *end = dir_sync + 1;
  return testing::AssertionSuccess()
         << "created #" << created << ", last write #" << last_write << ", fsync #" << sync
         << ", rename #" << rename << ", directory open #" << dir_open << ", its fsync #"
         << dir_sync;
}

class DurabilityOrderTest : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(MakeWritePathTrees(scratch_));
    ASSERT_EQ(mkdir((scratch_ / "trace").c_str(), 0755), 0);
  }

  // Prepares the write path `name`, runs `count` writes of it in the driver
  // under strace and reads the trace: the driver's process first, then the
  // forked copies of it that exec'd nothing.
  std::vector<Process> Trace(const std::string& name, int count = 1) {
    WritePath path;
    EXPECT_TRUE(FindWritePath(scratch_.path(), name, &path));
    EXPECT_TRUE(path.prepare());
    const std::string prefix = scratch_ / "trace/" + name;
    const pid_t pid = fork();
    if (pid == 0) {
      // LeakSanitizer cannot run in a traced process (it stops the program
      // with ptrace itself) and would fail the driver at its exit; the other
      // sanitizer checks stay on.
      const char* asan = std::getenv("ASAN_OPTIONS");
      const std::string options = std::string(asan != nullptr ? asan : "") + ":detect_leaks=0";
      setenv("ASAN_OPTIONS", options.c_str(), 1);
      execl("/usr/bin/strace", "strace", "-ff", "-qq", "-s", "24", "-o", prefix.c_str(), "-e",
            "trace=execve,open,openat,creat,write,pwrite64,writev,pwritev,copy_file_range,"
            "sendfile,fsync,fdatasync,close,dup,dup2,dup3,fcntl,rename,renameat,renameat2,"
            "unlink,unlinkat",
            WRITE_PATH_DRIVER, name.c_str(), scratch_.path().c_str(), std::to_string(count).c_str(),
            static_cast<char*>(nullptr));
      _exit(127);
    }
    int status = -1;
    EXPECT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0)
        << "strace or the driver: " << status;
    std::vector<Process> own;
    for (const auto& file : ListDir(scratch_ / "trace")) {
      if (file.compare(0, name.size() + 1, name + ".") != 0) continue;
      Process process = ReadProcess(scratch_ / "trace/" + file);
      if (process.exec == WRITE_PATH_DRIVER) {
        own.insert(own.begin(), process);
      } else if (process.exec.empty()) {
        own.push_back(process);
      }
    }
    EXPECT_FALSE(own.empty());
    if (own.empty() || own.front().exec != WRITE_PATH_DRIVER) {
      ADD_FAILURE() << "no trace of the driver's own process";
      own.insert(own.begin(), Process());
    }
    // What the driver did itself before it called the library (reading
    // which version is on disk) is left out.
    auto& ops = own.front().ops;
    const auto marker =
        std::find_if(ops.begin(), ops.end(), [](const Op& op) { return op.kind == Op::kMarker; });
    EXPECT_NE(marker, ops.end()) << "the driver's marker is not in the trace";
    if (marker != ops.end()) ops.erase(ops.begin(), marker + 1);
    return own;
  }

  ScratchDir scratch_;
};

TEST_F(DurabilityOrderTest, TempFileMoveToSyncsFileThenRenamesThenSyncsDirectory) {
  const auto trace = Trace("TempFileMoveTo");
  EXPECT_TRUE(AtomicReplace(trace[0].ops, scratch_ / "same/target.conf"));
}

TEST_F(DurabilityOrderTest, KeyValueWriteSyncsFileThenRenamesThenSyncsDirectory) {
  const auto trace = Trace("FileKeyValueWrite");
  EXPECT_TRUE(AtomicReplace(trace[0].ops, scratch_ / "same/values.conf"));
}

TEST_F(DurabilityOrderTest, SetVelmoraConfigSyncsFileThenRenamesThenSyncsDirectory) {
  const auto trace = Trace("SetVelmoraConfig");
  EXPECT_TRUE(AtomicReplace(trace[0].ops, settings_test::kClientConf));
}

TEST_F(DurabilityOrderTest, SetPOP3ConfigSyncsFileThenRenamesThenSyncsDirectory) {
  const auto trace = Trace("SetPOP3Config");
  EXPECT_TRUE(AtomicReplace(trace[0].ops, settings::Pop3Control("vt").pop3_config_path));
}

TEST_F(DurabilityOrderTest, ModifyFetchmailrcSyncsFileThenRenamesThenSyncsDirectory) {
  const auto trace = Trace("ModifyFetchmailrc");
  EXPECT_TRUE(AtomicReplace(trace[0].ops, ControlTarget(kUser1, true).path));
}

// TrackStart appends to the list in place (no temporary file), after a
// child of the library has rewritten the user's control file; TrackStop
// rewrites the list through a temporary file.
TEST_F(DurabilityOrderTest, TrackStartAppendsAndTrackStopRewritesTheList) {
  const auto trace = Trace("TrackStartTrackStop", 2);
  const std::string list = settings::Pop3Control("vt").uid_list_path;
  const auto& ops = trace[0].ops;
  const std::string shown = Show(ops, list, Dirname(list), "");
  // The append: every open of the list is close-on-exec and appends; the
  // line is written through the descriptor that is then closed, all before
  // the rewrite starts.
  size_t rewrite_start = ops.size();
  for (size_t k = 0; k < ops.size(); ++k) {
    if (ops[k].kind == Op::kOpen && IsTempName(Basename(ops[k].path), Basename(list))) {
      rewrite_start = k;
      break;
    }
  }
  ASSERT_LT(rewrite_start, ops.size()) << shown;
  int append_fd = -1;
  size_t append_write = ops.size();
  size_t append_close = ops.size();
  for (size_t k = 0; k < rewrite_start; ++k) {
    if (ops[k].path != list) continue;
    if (ops[k].kind == Op::kOpen) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_CLOEXEC")) << ops[k].line;
      if (!HasFlag(ops[k].flags, "O_RDONLY")) {
        EXPECT_TRUE(HasFlag(ops[k].flags, "O_APPEND")) << ops[k].line;
      }
      if (ops[k].ok) append_fd = ops[k].fd;
    }
    if (ops[k].kind == Op::kWrite && ops[k].fd == append_fd) append_write = k;
    if (ops[k].kind == Op::kClose && ops[k].fd == append_fd && k > append_write) append_close = k;
  }
  EXPECT_NE(append_fd, -1) << shown;
  EXPECT_LT(append_write, append_close) << shown;
  EXPECT_LT(append_close, rewrite_start) << shown;
  EXPECT_TRUE(AtomicReplace(ops, list, rewrite_start));
  // The start's control file rewrite, in the forked copy that ran it.
  const std::string rc = ControlTarget(kUser2, false).path;
  int rewrites = 0;
  for (size_t p = 1; p < trace.size(); ++p) {
    for (const auto& op : trace[p].ops) {
      if (op.kind == Op::kRename && op.to == rc) {
        ++rewrites;
        EXPECT_TRUE(AtomicReplace(trace[p].ops, rc)) << "process " << trace[p].pid;
      }
    }
  }
  EXPECT_EQ(rewrites, 1);
}

// Rename is one rename(2) of the given names: atomic, and it leaves the
// flushing to its caller (MoveTo syncs the directory after it).
TEST_F(DurabilityOrderTest, RenameIsOneRenameCall) {
  const auto trace = Trace("Rename");
  const std::string target = scratch_ / "same/renamed.conf";
  std::vector<Op> renames;
  for (const auto& op : trace[0].ops) {
    if (op.kind == Op::kRename) renames.push_back(op);
  }
  ASSERT_EQ(renames.size(), 1u);
  EXPECT_EQ(renames[0].path, scratch_ / "same/staged.conf");
  EXPECT_EQ(renames[0].to, target);
  EXPECT_TRUE(renames[0].ok) << renames[0].line;
}

// CopyFile creates the copy exclusively (it never overwrites), writes it
// through that descriptor, flushes its data and closes it; both opens are
// close-on-exec.
void ExpectCopy(const std::vector<Op>& ops, const std::string& source, const std::string& target) {
  const std::string shown = Show(ops, target, source, "");
  size_t created = ops.size();
  size_t last_write = ops.size();
  size_t synced = ops.size();
  size_t closed = ops.size();
  for (size_t k = 0; k < ops.size(); ++k) {
    if (ops[k].kind == Op::kOpen && (ops[k].path == target || ops[k].path == source)) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_CLOEXEC")) << ops[k].line;
    }
    if (ops[k].path != target) continue;
    EXPECT_NE(ops[k].kind, Op::kRename) << ops[k].line;
    if (ops[k].kind == Op::kOpen && ops[k].ok) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_EXCL")) << ops[k].line;
      created = k;
    }
    if (created == ops.size() || ops[k].fd != ops[created].fd) continue;
    if (ops[k].kind == Op::kWrite && ops[k].ok) last_write = k;
    if (ops[k].kind == Op::kSync && ops[k].ok && k > last_write) synced = k;
    if (ops[k].kind == Op::kClose) closed = k;
  }
  ASSERT_LT(created, ops.size()) << shown;
  EXPECT_LT(created, last_write) << shown;
  EXPECT_LT(last_write, synced) << "the copy's data is not flushed after its last write\n" << shown;
  EXPECT_LT(synced, closed) << shown;
  EXPECT_NE(closed, ops.size()) << shown;
}

TEST_F(DurabilityOrderTest, CopyFileFlushesTheExclusivelyCreatedCopyBeforeClosingIt) {
  const auto trace = Trace("CopyFile");
  ExpectCopy(trace[0].ops, scratch_ / "same/source1", scratch_ / "same/copy.conf");
}

// Across file systems the bytes are copied by a read/write loop, which
// flushes the same way.
TEST_F(DurabilityOrderTest, CopyFileAcrossFileSystemsFlushesTheCopyBeforeClosingIt) {
  const auto trace = Trace("CopyFileAcrossFileSystems");
  ExpectCopy(trace[0].ops, scratch_ / "a/source1", scratch_ / "b/copy.conf");
}

// Across file systems MoveTo syncs and closes the temporary file, tries the
// rename (EXDEV), copies the bytes into a new target, syncs the copy, and
// only then removes the temporary file; last the target's directory is
// synced.
TEST_F(DurabilityOrderTest, MoveAcrossFileSystemsSyncsTheCopyBeforeRemovingTheTemporaryFile) {
  const auto trace = Trace("TempFileMoveToAcrossFileSystems");
  const std::string target = scratch_ / "b/target.conf";
  const auto& ops = trace[0].ops;
  size_t rename = ops.size();
  for (size_t k = 0; k < ops.size(); ++k) {
    if (ops[k].kind == Op::kRename && ops[k].to == target) rename = k;
  }
  ASSERT_LT(rename, ops.size());
  const std::string temp = ops[rename].path;
  const std::string shown = Show(ops, temp, target, Dirname(target));
  EXPECT_FALSE(ops[rename].ok) << shown;
  EXPECT_EQ(ops[rename].error, "EXDEV") << shown;
  ASSERT_TRUE(IsTempName(Basename(temp), "stage")) << shown;
  // The temporary file: written, synced, closed, before the rename.
  size_t temp_write = ops.size();
  size_t temp_sync = ops.size();
  size_t temp_close = ops.size();
  for (size_t k = 0; k < rename; ++k) {
    if (ops[k].path != temp) continue;
    if (ops[k].kind == Op::kOpen) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_CLOEXEC")) << ops[k].line;
    }
    if (ops[k].kind == Op::kWrite) temp_write = k;
    if (ops[k].kind == Op::kSync && ops[k].ok && k > temp_write) temp_sync = k;
    if (ops[k].kind == Op::kClose && k > temp_sync) temp_close = k;
  }
  EXPECT_LT(temp_write, temp_sync) << shown;
  EXPECT_LT(temp_sync, temp_close) << shown;
  EXPECT_LT(temp_close, rename) << shown;
  // The copy that stays (the last create of the target), its writes, an
  // fsync of it after the last one, its close, then the removal of the
  // temporary file, then the directory.
  size_t created = ops.size();
  for (size_t k = rename; k < ops.size(); ++k) {
    if (ops[k].kind == Op::kOpen && (ops[k].path == target || ops[k].path == temp)) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_CLOEXEC")) << ops[k].line;
    }
    if (ops[k].kind == Op::kOpen && ops[k].ok && ops[k].path == target &&
        HasFlag(ops[k].flags, "O_CREAT")) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_EXCL")) << ops[k].line;
      created = k;
    }
  }
  ASSERT_LT(created, ops.size()) << shown;
  size_t unlink = ops.size();
  for (size_t k = created; k < ops.size() && unlink == ops.size(); ++k) {
    if (ops[k].kind == Op::kUnlink && ops[k].path == temp && ops[k].ok) unlink = k;
  }
  ASSERT_LT(unlink, ops.size()) << "the temporary file is never removed\n" << shown;
  size_t copy_write = ops.size();
  size_t copy_sync = ops.size();
  size_t copy_close = ops.size();
  for (size_t k = created; k < unlink; ++k) {
    if (ops[k].path != target) continue;
    if (ops[k].kind == Op::kWrite) copy_write = k;
    if (ops[k].kind == Op::kSync && ops[k].ok && k > copy_write) copy_sync = k;
    if (ops[k].kind == Op::kClose && ops[k].fd == ops[created].fd) copy_close = k;
  }
  EXPECT_LT(created, copy_write) << shown;
  EXPECT_LT(copy_write, copy_sync) << "no fsync of the copy before the temporary file goes\n"
                                   << shown;
  EXPECT_LT(copy_write, copy_close) << shown;
  EXPECT_LT(copy_sync, unlink) << shown;
  size_t dir_open = ops.size();
  size_t dir_sync = ops.size();
  for (size_t k = unlink; k < ops.size(); ++k) {
    if (ops[k].kind == Op::kOpen && ops[k].ok && ops[k].path == Dirname(target) &&
        dir_open == ops.size()) {
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_DIRECTORY")) << ops[k].line;
      EXPECT_TRUE(HasFlag(ops[k].flags, "O_CLOEXEC")) << ops[k].line;
      dir_open = k;
    }
    if (dir_open < k && ops[k].kind == Op::kSync && ops[k].fd == ops[dir_open].fd && ops[k].ok) {
      dir_sync = k;
    }
  }
  EXPECT_LT(dir_sync, ops.size()) << "no fsync of the target's directory after the move\n" << shown;
}

}  // namespace
}  // namespace crash
}  // namespace test
}  // namespace velmora

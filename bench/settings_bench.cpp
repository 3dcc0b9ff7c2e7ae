// Benchmarks of the POP3 fetch settings: each library operation runs beside a
// plain twin that does the same work, in the same process, so that their
// ratio can be read off one run.
//
// Names: "<Operation>/<side>/<size>" where <side> is "lib" for the library
// and "raw" for its twin; scripts/run-benchmarks pairs them by name.
//
//   UidSetRead/*/N        the uid list of N uids (shuffled) read into a set;
//                         raw: a std::ifstream read with >> into std::set.
//   Fetchmailrc/*/1000    the "set daemon" rewrite of a 1,000-line control
//                         file; raw: getline, a temporary file beside it with
//                         the same owner and mode, fsync, rename, fsync of
//                         the directory.
//   UidListStart/*/200    one UidListStart over 200 listed users, each run
//                         through the recording fetchmail stand-in; raw: 200
//                         plain fork + exec + wait of the same script with
//                         the same arguments.
//
// They write below /var/packages and /var/spool/mail, so they run only inside
// scripts/hermetic-run, e.g.
//   scripts/hermetic-run -- taskset -c 0 build/bench/velmora_settings_bench
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include <velmora/settings.h>

namespace {

constexpr char kSettingsDir[] = "/var/packages/Velmora-Server/etc/velmora";
constexpr char kFetchmailDir[] = "/var/packages/Quillbox/target/bin";
constexpr char kFetchmail[] = "/var/packages/Quillbox/target/bin/fetchmail";
constexpr char kBackend[] = "/var/packages/Velmora-Server/target/bin/orvo_mailserver_backend";
constexpr char kRecordDir[] = "/var/tmp/velmora-bench";
constexpr char kRecord[] = "/var/tmp/velmora-bench/fetchmail.calls";
constexpr uint32_t kFirstUser = 80000;  // the benchmark's users have no passwd entry
constexpr int kUsers = 200;

bool Run(const std::string& command) { return std::system(command.c_str()) == 0; }

bool WriteText(const std::string& path, const std::string& text, mode_t mode = 0644) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
  if (fd < 0) return false;
  bool ok = write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
  return close(fd) == 0 && ok && chmod(path.c_str(), mode) == 0;
}

// The fixed layout that the benchmarks need, made once.
bool PrepareTree() {
  return Run(std::string("mkdir -p ") + kSettingsDir + " " + kFetchmailDir +
             " /var/packages/Velmora-Server/target/bin /var/lock/velmora_server " + kRecordDir) &&
         chmod(kRecordDir, 0777) == 0 &&
         WriteText(
             kFetchmail,
             std::string("#!/bin/sh\nline=\"\"\nfor a in \"$@\"; do line=\"$line$a\t\"; "
                         "done\nids=\"$(/usr/bin/id -ru) $(/usr/bin/id -u) $(/usr/bin/id "
                         "-rg) $(/usr/bin/id -g)\"\nprintf '%s%s\\n' \"$line\" \"$ids\" >> ") +
                 kRecord + "\nexit 0\n",
             0755) &&
         WriteText(kBackend, "#!/bin/sh\nexit 0\n", 0755) && WriteText(kRecord, "", 0666);
}

// ---- Uid list read ----

std::string UidListText(int count) {
  std::vector<uint32_t> uids;
  for (int i = 0; i < count; ++i) uids.push_back(1000u + 7u * static_cast<uint32_t>(i));
  std::shuffle(uids.begin(), uids.end(), std::mt19937(42));
  std::string text;
  for (uint32_t uid : uids) text += std::to_string(uid) + "\n";
  return text;
}

velmora::settings::Pop3Control ListInstance(int count) {
  velmora::settings::Pop3Control control("bench" + std::to_string(count));
  Run("mkdir -p " + control.spool_root + "/db");
  WriteText(control.uid_list_path, UidListText(count));
  return control;
}

void UidSetReadLib(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  velmora::settings::Pop3Control control = ListInstance(count);
  for (auto _ : state) {
    std::set<uint32_t> uids = control.GetPOP3UidSet();
    if (uids.size() != static_cast<size_t>(count)) state.SkipWithError("wrong uid count");
    benchmark::DoNotOptimize(uids);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

void UidSetReadRaw(benchmark::State& state) {
  const int count = static_cast<int>(state.range(0));
  velmora::settings::Pop3Control control = ListInstance(count);
  for (auto _ : state) {
    std::set<uint32_t> uids;
    std::ifstream in(control.uid_list_path);
    uint32_t uid;
    while (in >> uid) uids.insert(uid);
    if (uids.size() != static_cast<size_t>(count)) state.SkipWithError("wrong uid count");
    benchmark::DoNotOptimize(uids);
  }
  state.SetItemsProcessed(state.iterations() * count);
}

// ---- Control file rewrite ----

constexpr uint32_t kRcUser = 61999;

std::string ControlFileText(int lines) {
  std::string text = "set daemon 300\n";
  for (int i = 1; i < lines; ++i) {
    text += "poll host" + std::to_string(i) +
            ".example.com proto pop3 user \"someone\" password \"secret\" keep\n";
  }
  return text;
}

std::string PrepareControlFile(const velmora::settings::Pop3Control& control, int lines) {
  const std::string dir = control.UserFetchMailPath(kRcUser);
  Run("mkdir -p " + dir);
  const std::string path = dir + "quillbox_pop3_fetch";
  WriteText(path, ControlFileText(lines), 0600);
  if (chown(path.c_str(), kRcUser, kRcUser) != 0) return std::string();
  return path;
}

void FetchmailrcLib(benchmark::State& state) {
  velmora::settings::Pop3Control control("benchrc");
  if (PrepareControlFile(control, static_cast<int>(state.range(0))).empty()) {
    state.SkipWithError("cannot prepare the control file");
  }
  uint32_t interval = 0;
  for (auto _ : state) {
    if (!control.ModifyFetchmailrc(kRcUser, ++interval)) state.SkipWithError("rewrite failed");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

void FetchmailrcRaw(benchmark::State& state) {
  velmora::settings::Pop3Control control("benchrcraw");
  const std::string path = PrepareControlFile(control, static_cast<int>(state.range(0)));
  if (path.empty()) state.SkipWithError("cannot prepare the control file");
  const std::string dir = path.substr(0, path.rfind('/'));
  const std::string temp = path + ".tmp";
  uint32_t interval = 0;
  for (auto _ : state) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) state.SkipWithError("stat failed");
    std::ifstream in(path);
    std::string out;
    out.reserve(static_cast<size_t>(st.st_size) + 64);
    std::string line;
    ++interval;
    while (std::getline(in, line)) {
      if (line.compare(0, 10, "set daemon") == 0) line = "set daemon " + std::to_string(interval);
      out += line;
      out += '\n';
    }
    int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    bool ok =
        fd >= 0 && fchown(fd, st.st_uid, st.st_gid) == 0 && fchmod(fd, st.st_mode & 07777) == 0 &&
        write(fd, out.data(), out.size()) == static_cast<ssize_t>(out.size()) && fsync(fd) == 0;
    if (fd >= 0) close(fd);
    ok = ok && rename(temp.c_str(), path.c_str()) == 0;
    int dfd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dfd >= 0) {
      fsync(dfd);
      close(dfd);
    }
    if (!ok) state.SkipWithError("rewrite failed");
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}

// ---- Starting the listed users' daemons ----

// 200 users with a control file each, all in the uid list, service on.
velmora::settings::Pop3Control PrepareUsers() {
  velmora::settings::Pop3Control control("benchstart");
  Run("mkdir -p " + control.spool_root + "/db");
  std::string list;
  for (int i = 0; i < kUsers; ++i) {
    const uint32_t uid = kFirstUser + static_cast<uint32_t>(i);
    const std::string dir = control.UserFetchMailPath(uid);
    Run("mkdir -p " + dir);
    const std::string rc = dir + "quillbox_pop3_fetch";
    WriteText(rc, "poll 127.0.0.1 proto pop3\nset daemon 300\n", 0600);
    if (chown(rc.c_str(), uid, uid) != 0 || chown(dir.c_str(), uid, uid) != 0) return control;
    list += std::to_string(uid) + "\n";
  }
  WriteText(control.uid_list_path, list);
  WriteText(control.pop3_config_path, "true\n5\n");
  return control;
}

void UidListStartLib(benchmark::State& state) {
  velmora::settings::Pop3Control control = PrepareUsers();
  for (auto _ : state) {
    if (!control.UidListStart()) state.SkipWithError("UidListStart failed");
  }
  state.SetItemsProcessed(state.iterations() * kUsers);
}

void UidListStartRaw(benchmark::State& state) {
  velmora::settings::Pop3Control control = PrepareUsers();
  std::vector<std::vector<std::string>> argvs;
  for (int i = 0; i < kUsers; ++i) {
    const std::string dir = control.UserFetchMailPath(kFirstUser + static_cast<uint32_t>(i));
    argvs.push_back({kFetchmail, "-f", dir + "quillbox_pop3_fetch", "--pidfile",
                     dir + "quillbox_fetchmail.pid", "--idfile", dir + "quillbox_fetchmail.id"});
  }
  for (auto _ : state) {
    for (const auto& args : argvs) {
      std::vector<char*> argv;
      for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
      argv.push_back(nullptr);
      pid_t pid = fork();
      if (pid == 0) {
        execv(kFetchmail, argv.data());
        _exit(127);
      }
      int status = 0;
      if (pid < 0 || waitpid(pid, &status, 0) != pid || status != 0) {
        state.SkipWithError("run failed");
      }
    }
  }
  state.SetItemsProcessed(state.iterations() * kUsers);
}

}  // namespace

int main(int argc, char** argv) {
  if (std::getenv("VELMORA_HERMETIC") == nullptr) {
    std::fprintf(stderr,
                 "%s writes below /var/packages and /var/spool/mail; run it inside "
                 "scripts/hermetic-run\n",
                 argv[0]);
    return 1;
  }
  if (!PrepareTree()) {
    std::fprintf(stderr, "cannot prepare the package tree\n");
    return 1;
  }
  for (int count : {1000, 10000, 100000}) {
    benchmark::RegisterBenchmark("UidSetRead/lib", UidSetReadLib)->Arg(count)->UseRealTime();
    benchmark::RegisterBenchmark("UidSetRead/raw", UidSetReadRaw)->Arg(count)->UseRealTime();
  }
  benchmark::RegisterBenchmark("Fetchmailrc/lib", FetchmailrcLib)->Arg(1000)->UseRealTime();
  benchmark::RegisterBenchmark("Fetchmailrc/raw", FetchmailrcRaw)->Arg(1000)->UseRealTime();
  benchmark::RegisterBenchmark("UidListStart/lib", UidListStartLib)
      ->Arg(kUsers)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::RegisterBenchmark("UidListStart/raw", UidListStartRaw)
      ->Arg(kUsers)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}

// The write paths of the library as the crash and durability tests drive
// them: each rewrites one or more files through the library, alternating
// between two contents of different sizes, so that a reader can tell the old
// file, the new file and anything in between apart.
//
// Shared by crash_point_test.cpp (which runs the writes in a forked child and
// kills it) and write_path_driver.cpp (which runs one write under strace).
// Only valid inside the hermetic test runner.
#ifndef VELMORA_TESTS_FAULT_CRASH_WRITE_PATHS_H_
#define VELMORA_TESTS_FAULT_CRASH_WRITE_PATHS_H_

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include <velmora/file.h>
#include <velmora/settings.h>

#include "support/settings_test_util.h"

namespace velmora {
namespace test {
namespace crash {

using settings_test::kAccount;
using settings_test::kShared;
using settings_test::kUser1;
using settings_test::kUser2;

// A file that a write path replaces. `content[0]` and `content[1]` are the
// two versions the path writes in turn.
struct Target {
  std::string path;
  std::string content[2];
  uid_t uid = 0;
  gid_t gid = 0;
  mode_t mode = 0;
  // False for the writes that are not atomic by design (a copy into a new
  // file): the file may then also be missing or a prefix of a version, and
  // a complete file has the caller's owner rather than a kept one.
  bool atomic = true;
  // Which version the library's own reader sees in the file: 0, 1, or -1
  // when it reads neither.
  std::function<int()> parsed;
};

// Where a writer's temporary files appear: names that start with `prefix`,
// a dash and four dash-separated groups of five hexadecimal digits, ending in
// ".tmp", in `dir`.
struct TempSite {
  std::string dir;
  std::string prefix;  // a file name, no directory
};

struct WritePath {
  std::string name;
  // The operation each of the two phases runs (one name when both run the
  // same operation).
  std::vector<std::string> phase_names;
  std::vector<Target> targets;
  // Where the temporary files of targets[k] appear is temp_sites[k].
  std::vector<TempSite> temp_sites;
  // A file the writer stages itself before it calls the library (Rename).
  std::string staged;
  // Lays out files and directories; true on success. Runs in the test.
  std::function<bool()> prepare;
  // The phase (0 or 1) to run first, given what is on disk now, so that a
  // writer started after a kill still alternates.
  std::function<int()> first_phase;
  // Runs one write of phase `phase`; true when the library reported success.
  std::function<bool(int phase)> write;
};

// True when `name` is `prefix` + "-xxxxx-xxxxx-xxxxx-xxxxx.tmp" with
// lower-case hexadecimal digits.
inline bool IsTempName(const std::string& name, const std::string& prefix) {
  const std::string tail = "-xxxxx-xxxxx-xxxxx-xxxxx.tmp";
  if (name.size() != prefix.size() + tail.size()) return false;
  if (name.compare(0, prefix.size(), prefix) != 0) return false;
  for (size_t k = 0; k < tail.size(); ++k) {
    const char c = name[prefix.size() + k];
    if (tail[k] == 'x') {
      if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
    } else if (c != tail[k]) {
      return false;
    }
  }
  return true;
}

// The temporary files now present at `site`, as full paths.
inline std::vector<std::string> TempFilesAt(const TempSite& site) {
  std::vector<std::string> found;
  for (const auto& name : ListDir(site.dir)) {
    if (IsTempName(name, site.prefix)) found.push_back(site.dir + "/" + name);
  }
  return found;
}

inline std::string Dirname(const std::string& path) { return path.substr(0, path.rfind('/')); }
inline std::string Basename(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// Key-value text whose "payload" value tells the two versions apart; the
// second is larger and has many lines, so that it takes many writes.
inline std::vector<std::string> KeyValueLines(int version) {
  std::vector<std::string> lines{"name=alpha"};
  if (version == 0) {
    lines.push_back("payload=" + std::string(16, 'a'));
  } else {
    lines.push_back("payload=" + std::string(100, 'b'));
    for (int k = 0; k < 64; ++k) {
      lines.push_back("fill" + std::to_string(k) + "=" + std::string(60, 'f'));
    }
  }
  return lines;
}

inline std::string Joined(const std::vector<std::string>& lines) {
  std::string text;
  for (const auto& line : lines) text += line + "\n";
  return text;
}

// Which version the key-value reader finds in `path`.
inline int ParsedKeyValue(const std::string& path) {
  sdk::FileKeyValue file(path);
  if (!file.ReadKeyValues(1024, "=")) return -1;
  const std::string payload = file.Get("payload");
  for (int v = 0; v < 2; ++v) {
    if (file.Get("name") == "alpha" && payload == KeyValueLines(v)[1].substr(8)) return v;
  }
  return -1;
}

inline int VersionOnDisk(const Target& target) {
  const std::string bytes = ReadFile(target.path);
  return bytes == target.content[1] ? 1 : 0;
}

// ---- The paths ----

// TempFile beside the target, owner and mode set as the library's writers
// set them, then MoveTo.
inline WritePath TempFileMovePath(const std::string& base) {
  WritePath p;
  p.name = "TempFileMoveTo";
  p.phase_names = {"TempFile+MoveTo"};
  Target t;
  t.path = base + "/same/target.conf";
  for (int v = 0; v < 2; ++v) t.content[v] = Joined(KeyValueLines(v));
  t.uid = kUser1;
  t.gid = kShared;
  t.mode = 0640;
  t.parsed = [path = t.path] { return ParsedKeyValue(path); };
  p.targets.push_back(t);
  p.temp_sites.push_back({base + "/same", "target.conf"});
  p.prepare = [t] {
    return settings_test::MakeDir(Dirname(t.path)) &&
           settings_test::WriteOwned(t.path, t.content[0], t.uid, t.gid, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [t](int v) {
    sdk::TempFile temp(t.path);
    if (!temp.valid_ || temp.Chown(t.uid, t.gid) != 0 || temp.Chmod(t.mode) != 0) return false;
    for (const auto& line : KeyValueLines(v)) temp.WriteLine(line);
    return temp.MoveTo(t.path) == 0;
  };
  return p;
}

// TempFile on one tmpfs moved to a target on another: the move is a copy
// followed by removal of the temporary file, and it refuses an existing
// target, so the writer removes the old target first.
inline WritePath TempFileMoveAcrossPath(const std::string& base) {
  WritePath p;
  p.name = "TempFileMoveToAcrossFileSystems";
  p.phase_names = {"TempFile+MoveTo across file systems"};
  Target t;
  t.path = base + "/b/target.conf";
  for (int v = 0; v < 2; ++v) t.content[v] = Joined(KeyValueLines(v));
  t.uid = 0;  // a copy belongs to the caller
  t.gid = 0;
  t.mode = 0640;
  t.atomic = false;
  t.parsed = [path = t.path] { return ParsedKeyValue(path); };
  p.targets.push_back(t);
  const std::string stage = base + "/a/stage";
  p.temp_sites.push_back({base + "/a", "stage"});
  // The two mounts are made by the test, which owns them.
  p.prepare = [t] { return settings_test::WriteOwned(t.path, t.content[0], 0, 0, t.mode); };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [t, stage](int v) {
    unlink(t.path.c_str());
    sdk::TempFile temp(stage);
    if (!temp.valid_ || temp.Chmod(t.mode) != 0) return false;
    for (const auto& line : KeyValueLines(v)) temp.WriteLine(line);
    return temp.MoveTo(t.path) == 0;
  };
  return p;
}

// sdk::Rename of a file the writer staged itself.
inline WritePath RenamePath(const std::string& base) {
  WritePath p;
  p.name = "Rename";
  p.phase_names = {"Rename"};
  Target t;
  t.path = base + "/same/renamed.conf";
  for (int v = 0; v < 2; ++v) t.content[v] = Joined(KeyValueLines(v));
  t.uid = kUser1;
  t.gid = kShared;
  t.mode = 0640;
  t.parsed = [path = t.path] { return ParsedKeyValue(path); };
  p.targets.push_back(t);
  const std::string staged = base + "/same/staged.conf";
  p.staged = staged;
  p.prepare = [t] {
    return settings_test::MakeDir(Dirname(t.path)) &&
           settings_test::WriteOwned(t.path, t.content[0], t.uid, t.gid, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [t, staged](int v) {
    if (!settings_test::WriteOwned(staged, t.content[v], t.uid, t.gid, t.mode)) return false;
    return sdk::Rename(staged, t.path) == 0;
  };
  return p;
}

// sdk::CopyFile into a new file (it never overwrites, so the writer removes
// the old copy first).
inline WritePath CopyFilePath(const std::string& base) {
  WritePath p;
  p.name = "CopyFile";
  p.phase_names = {"CopyFile"};
  Target t;
  t.path = base + "/same/copy.conf";
  for (int v = 0; v < 2; ++v) t.content[v] = Joined(KeyValueLines(v));
  t.uid = 0;
  t.gid = 0;
  t.mode = 0640;
  t.atomic = false;
  t.parsed = [path = t.path] { return ParsedKeyValue(path); };
  p.targets.push_back(t);
  const std::string source = base + "/same/source";
  p.prepare = [t, source] {
    return settings_test::MakeDir(Dirname(t.path)) &&
           settings_test::WriteOwned(source + "0", t.content[0], kUser1, kShared, t.mode) &&
           settings_test::WriteOwned(source + "1", t.content[1], kUser1, kShared, t.mode) &&
           settings_test::WriteOwned(t.path, t.content[0], 0, 0, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [t, source](int v) {
    unlink(t.path.c_str());
    return sdk::CopyFile(source + std::to_string(v), t.path) == 0;
  };
  return p;
}

// sdk::CopyFile from one tmpfs into a new file on another, where the copy
// is made by a read/write loop.
inline WritePath CopyFileAcrossPath(const std::string& base) {
  WritePath p = CopyFilePath(base);
  p.name = "CopyFileAcrossFileSystems";
  p.phase_names = {"CopyFile across file systems"};
  Target& t = p.targets[0];
  t.path = base + "/b/copy.conf";
  t.parsed = [path = t.path] { return ParsedKeyValue(path); };
  const std::string source = base + "/a/source";
  p.prepare = [t, source] {
    return settings_test::WriteOwned(source + "0", t.content[0], kUser1, kShared, t.mode) &&
           settings_test::WriteOwned(source + "1", t.content[1], kUser1, kShared, t.mode) &&
           settings_test::WriteOwned(t.path, t.content[0], 0, 0, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [t, source](int v) {
    unlink(t.path.c_str());
    return sdk::CopyFile(source + std::to_string(v), t.path) == 0;
  };
  return p;
}

// FileKeyValue read, update, write.
inline WritePath KeyValueWritePath(const std::string& base) {
  WritePath p;
  p.name = "FileKeyValueWrite";
  p.phase_names = {"FileKeyValue::Write"};
  Target t;
  t.path = base + "/same/values.conf";
  for (int v = 0; v < 2; ++v) t.content[v] = "name=alpha\n" + KeyValueLines(v)[1] + "\n";
  t.uid = kUser1;
  t.gid = kShared;
  t.mode = 0640;
  t.parsed = [path = t.path] { return ParsedKeyValue(path); };
  p.targets.push_back(t);
  p.temp_sites.push_back({base + "/same", "values.conf"});
  p.prepare = [t] {
    return settings_test::MakeDir(Dirname(t.path)) &&
           settings_test::WriteOwned(t.path, t.content[0], t.uid, t.gid, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [t](int v) {
    sdk::FileKeyValue file(t.path);
    return file.ReadKeyValues(1024, "=") && file.Update("payload", KeyValueLines(v)[1].substr(8)) &&
           file.Write();
  };
  return p;
}

inline settings::record::VelmoraConfig ClientConfig(int version) {
  const bool on = version == 1;
  return settings::record::VelmoraConfig{on, on, on, on, on, on, on, on};
}

inline std::string ClientConfigText(int version) {
  const std::string word = version == 1 ? "yes" : "no";
  std::string text;
  for (const char* key :
       {"disable_pgp", "disable_shared_mailbox", "disable_smtp_sender_name", "enable_sharing_link",
        "is_custom_logo", "enable_chat", "enable_calendar", "enable_externalsource"}) {
    text += std::string(key) + "=" + word + "\n";
  }
  return text;
}

// The settings paths need the stand-ins and a fresh system tree.
inline bool PrepareSystemTree() {
  settings_test::ResetSystemTree();
  return settings_test::InstallBackendStandIn() && settings_test::InstallFetchmailStandIn();
}

inline WritePath SetVelmoraConfigPath() {
  WritePath p;
  p.name = "SetVelmoraConfig";
  p.phase_names = {"SetVelmoraConfig"};
  Target t;
  t.path = settings_test::kClientConf;
  for (int v = 0; v < 2; ++v) t.content[v] = ClientConfigText(v);
  t.uid = kAccount;
  t.gid = kAccount;
  t.mode = 0640;
  t.parsed = [] {
    const auto c = settings::GetVelmoraConfig();
    for (int v = 0; v < 2; ++v) {
      const auto e = ClientConfig(v);
      if (c.disable_pgp == e.disable_pgp && c.disable_shared_mailbox == e.disable_shared_mailbox &&
          c.disable_smtp_sender_name == e.disable_smtp_sender_name &&
          c.enable_sharing_link == e.enable_sharing_link && c.is_custom_logo == e.is_custom_logo &&
          c.enable_chat == e.enable_chat && c.enable_calendar == e.enable_calendar &&
          c.enable_externalsource == e.enable_externalsource) {
        return v;
      }
    }
    return -1;
  };
  p.targets.push_back(t);
  p.temp_sites.push_back({Dirname(t.path), Basename(t.path)});
  p.prepare = [t] {
    return PrepareSystemTree() && settings_test::MakeDir(Dirname(t.path)) &&
           settings_test::WriteOwned(t.path, t.content[0], t.uid, t.gid, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [](int v) { return settings::SetVelmoraConfig(ClientConfig(v)); };
  return p;
}

inline settings::record::GlobalPOP3Config Pop3Config(int version) {
  return version == 1 ? settings::record::GlobalPOP3Config{false, 86400}
                      : settings::record::GlobalPOP3Config{true, 5};
}

inline WritePath SetPop3ConfigPath() {
  WritePath p;
  p.name = "SetPOP3Config";
  p.phase_names = {"SetPOP3Config"};
  const settings::Pop3Control control("vt");
  Target t;
  t.path = control.pop3_config_path;
  t.content[0] = "true\n5\n";
  t.content[1] = "false\n86400\n";
  t.uid = kAccount;
  t.gid = kAccount;
  t.mode = 0644;
  t.parsed = [] {
    const auto c = settings::Pop3Control("vt").GetPOP3Config();
    for (int v = 0; v < 2; ++v) {
      if (c.enabled == Pop3Config(v).enabled && c.period == Pop3Config(v).period) return v;
    }
    return -1;
  };
  p.targets.push_back(t);
  p.temp_sites.push_back({Dirname(t.path), Basename(t.path)});
  p.prepare = [t] {
    return PrepareSystemTree() && settings_test::MakeDir(Dirname(t.path)) &&
           settings_test::WriteOwned(t.path, t.content[0], t.uid, t.gid, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [](int v) { return settings::Pop3Control("vt").SetPOP3Config(Pop3Config(v)); };
  return p;
}

inline std::string ControlText(uint32_t interval) {
  return "poll pop.example.net proto pop3\n  user \"u\" password \"p\"\nset daemon " +
         std::to_string(interval) + "\nset logfile /dev/null\n";
}

inline uint32_t ControlInterval(int version) { return version == 1 ? 86400 : 300; }

// The fetchmail control file of `uid` under the instance "vt".
inline Target ControlTarget(uid_t uid, bool alternating) {
  Target t;
  t.path = settings::Pop3Control("vt").UserFetchMailPath(uid) + "quillbox_pop3_fetch";
  for (int v = 0; v < 2; ++v) t.content[v] = ControlText(ControlInterval(alternating ? v : 0));
  t.uid = uid;
  t.gid = kShared;
  t.mode = 0600;
  t.parsed = [path = t.path, alternating] {
    const std::string bytes = ReadFile(path);
    // Exactly one "set daemon" line, with one of the two intervals.
    const size_t at = bytes.find("\nset daemon ");
    if (at == std::string::npos || bytes.find("\nset daemon ", at + 1) != std::string::npos) {
      return -1;
    }
    const uint32_t interval =
        static_cast<uint32_t>(std::strtoul(bytes.c_str() + at + 12, nullptr, 10));
    for (int v = 0; v < 2; ++v) {
      if (interval == ControlInterval(alternating ? v : 0)) return v;
    }
    return -1;
  };
  return t;
}

inline WritePath ModifyFetchmailrcPath() {
  WritePath p;
  p.name = "ModifyFetchmailrc";
  p.phase_names = {"ModifyFetchmailrc"};
  Target t = ControlTarget(kUser1, true);
  p.targets.push_back(t);
  p.temp_sites.push_back({Dirname(t.path), Basename(t.path)});
  p.prepare = [t] {
    return PrepareSystemTree() && settings_test::MakeDir(Dirname(t.path), t.uid, t.uid, 0700) &&
           settings_test::WriteOwned(t.path, t.content[0], t.uid, t.gid, t.mode);
  };
  p.first_phase = [t] { return 1 - VersionOnDisk(t); };
  p.write = [](int v) {
    return settings::Pop3Control("vt").ModifyFetchmailrc(kUser1, ControlInterval(v));
  };
  return p;
}

// TrackStart of one user (an append to the uid list, after a start that
// rewrites the user's control file in a child) and TrackStop of the same
// user (a rewrite of the list), in turn.
inline WritePath UidListPath() {
  WritePath p;
  p.name = "TrackStartTrackStop";
  p.phase_names = {"TrackStart", "TrackStop"};
  const settings::Pop3Control control("vt");
  Target list;
  list.path = control.uid_list_path;
  list.content[0] = "61001\n";
  list.content[1] = "61001\n61002\n";
  list.uid = kAccount;
  list.gid = kAccount;
  list.mode = 0644;
  list.parsed = [] {
    const auto uids = settings::Pop3Control("vt").GetPOP3UidSet();
    if (uids == std::set<uint32_t>{kUser1}) return 0;
    if (uids == std::set<uint32_t>{kUser1, kUser2}) return 1;
    return -1;
  };
  p.targets.push_back(list);
  // The start rewrites the user's control file with the same interval each
  // time: it must stay whole as well.
  const Target rc = ControlTarget(kUser2, false);
  p.targets.push_back(rc);
  p.temp_sites.push_back({Dirname(list.path), Basename(list.path)});
  p.temp_sites.push_back({Dirname(rc.path), Basename(rc.path)});
  p.prepare = [list, rc] {
    return PrepareSystemTree() && settings_test::MakeDir(Dirname(list.path)) &&
           settings_test::WriteOwned(list.path, list.content[0], list.uid, list.gid, list.mode) &&
           settings_test::MakeDir(Dirname(rc.path), rc.uid, rc.uid, 0700) &&
           settings_test::WriteOwned(rc.path, rc.content[0], rc.uid, rc.gid, rc.mode);
  };
  // Phase 0 (TrackStart) takes the list from "61001" to "61001 61002",
  // phase 1 (TrackStop) back.
  p.first_phase = [] {
    return settings::Pop3Control("vt").GetPOP3UidSet().count(kUser2) != 0 ? 1 : 0;
  };
  p.write = [](int phase) {
    const settings::Pop3Control c("vt");
    std::set<uint32_t> tracked = c.GetPOP3UidSet();
    if (phase == 0) return c.TrackStart({kUser2}, tracked, ControlInterval(0));
    return c.TrackStop({kUser2}, tracked);
  };
  return p;
}

// Every path, by name; `base` holds the scratch files of the file toolkit
// paths (with tmpfs mounts "a" and "b" for the move across file systems).
inline std::vector<WritePath> AllWritePaths(const std::string& base) {
  return {TempFileMovePath(base), TempFileMoveAcrossPath(base), RenamePath(base),
          CopyFilePath(base),     CopyFileAcrossPath(base),     KeyValueWritePath(base),
          SetVelmoraConfigPath(), SetPop3ConfigPath(),          ModifyFetchmailrcPath(),
          UidListPath()};
}

inline bool FindWritePath(const std::string& base, const std::string& name, WritePath* out) {
  for (auto& p : AllWritePaths(base)) {
    if (p.name == name) {
      *out = p;
      return true;
    }
  }
  return false;
}

// Makes the trees the write paths use below `scratch`: the tmpfs mounts "a"
// and "b" (a rename from one to the other crosses file systems) and the plain
// directory "same". True on success.
inline bool MakeWritePathTrees(ScratchDir& scratch) {
  return !scratch.path().empty() && scratch.MountTmpfs("a") && scratch.MountTmpfs("b") &&
         mkdir((scratch / "same").c_str(), 0755) == 0;
}

}  // namespace crash
}  // namespace test
}  // namespace velmora

#endif  // VELMORA_TESTS_FAULT_CRASH_WRITE_PATHS_H_

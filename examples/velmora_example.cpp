// velmora-example: writes a small settings file atomically, then updates a
// counter in it three times, each time under an exclusive lock file.
//
//   velmora-example [DIR]   (default: a new directory under /tmp, removed at
//                            the end)
#include <cstdio>
#include <cstdlib>
#include <string>

#include <velmora/velmora.h>

namespace sdk = velmora::sdk;

namespace {

int Fail(const std::string& what) {
  std::fprintf(stderr, "velmora-example: %s (see the system log)\n", what.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir;
  bool remove_dir = false;
  if (argc > 1) {
    dir = argv[1];
    if (sdk::MkDir(dir) != 0) return Fail("cannot create " + dir);
  } else {
    char model[] = "/tmp/velmora-example-XXXXXX";
    if (mkdtemp(model) == nullptr) return Fail("cannot create a directory under /tmp");
    dir = model;
    remove_dir = true;
  }
  const std::string settings = dir + "/example.conf";
  const std::string lock = dir + "/example.lock";

  // A new file is written beside its target and renamed into place.
  sdk::TempFile temp(settings);
  if (!temp.valid_) return Fail("cannot create a temporary file beside " + settings);
  temp.WriteLine("name=example");
  temp.WriteLine("counter=0");
  if (temp.Chmod(0644) != 0 || temp.MoveTo(settings) != 0) return Fail("cannot write " + settings);

  for (int round = 1; round <= 3; ++round) {
    sdk::ExclusiveFileLockGuard guard(lock, 5);
    if (guard.fd_ < 0) return Fail("cannot lock " + lock);
    sdk::FileKeyValue file(settings);
    if (!file.ReadKeyValues(1024, "=")) return Fail("cannot read " + settings);
    const int counter = std::atoi(file.Get("counter").c_str()) + 1;
    if (!file.Update("counter", std::to_string(counter)) || !file.Write()) {
      return Fail("cannot update " + settings);
    }
    std::printf("round %d: counter=%d (lock %s held on descriptor %d)\n", round, counter,
                lock.c_str(), guard.fd_);
  }

  sdk::FileKeyValue file(settings);
  if (!file.ReadKeyValues(1024, "=")) return Fail("cannot read " + settings);
  std::printf("%s: name=%s counter=%s, %llu bytes\n", settings.c_str(), file.Get("name").c_str(),
              file.Get("counter").c_str(),
              static_cast<unsigned long long>(sdk::FileSize(settings)));
  if (remove_dir && sdk::RemoveAll(dir) != 0) return Fail("cannot remove " + dir);
  return 0;
}

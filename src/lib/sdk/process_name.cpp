#include <fcntl.h>
#include <libgen.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <velmora/common.h>

namespace velmora {
namespace sdk {

std::string GetProcessName() {
  int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();

  // The command line is read up to its first space, not its first NUL: a
  // process that rewrote its title ("master -w") is named by the first word.
  std::string text;
  char buf[512];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    const char* space = static_cast<const char*>(memchr(buf, ' ', static_cast<size_t>(n)));
    if (space != nullptr) {
      text.append(buf, static_cast<size_t>(space - buf));
      break;
    }
    text.append(buf, static_cast<size_t>(n));
  }
  close(fd);

  // Base name of the text as a C string (up to its first NUL), POSIX rules.
  std::vector<char> cstr(text.c_str(), text.c_str() + strlen(text.c_str()) + 1);
  return std::string(basename(cstr.data()));
}

}  // namespace sdk
}  // namespace velmora

#include <fcntl.h>
#include <libgen.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <velmora/common.h>

#include "lib/posix_io.h"

namespace velmora {
namespace sdk {

std::string GetProcessName() {
  int fd = open("/proc/self/cmdline", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return std::string();

  // The command line is read up to its first space, not its first NUL: a
  // process that rewrote its title ("master -w") is named by the first word.
  // What was read before a failed read counts.
  std::string text;
  ::velmora::internal::ReadAll(fd, &text);
  close(fd);
  text.resize(std::min(text.find(' '), text.size()));

  // Base name of the text as a C string (up to its first NUL), POSIX rules.
  std::vector<char> cstr(text.c_str(), text.c_str() + strlen(text.c_str()) + 1);
  return std::string(basename(cstr.data()));
}

}  // namespace sdk
}  // namespace velmora

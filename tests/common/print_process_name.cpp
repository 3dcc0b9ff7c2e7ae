// Prints the library's idea of this process's name, for tests that start it
// under chosen command lines.
#include <cstdio>

#include <velmora/common.h>

int main() {
  std::fputs(velmora::sdk::GetProcessName().c_str(), stdout);
  return 0;
}

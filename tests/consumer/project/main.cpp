// Uses a name from every public header through the umbrella header.
#include <velmora/velmora.h>

#include <cstdio>
#include <string>
#include <vector>

int main() {
  std::vector<std::string> parts{"a", "b"};
  std::string joined = velmora::Join<std::string>(parts, "/");
  std::string replaced = velmora::Replace(joined, "/", "-");
  std::string name = velmora::sdk::FileName("/etc/velmora/x.conf");
  std::string response;
  int rc = velmora::common::socket::QuerySockServer("/nonexistent/velmora.sock", "", response, 1);
  velmora::sdk::TempFile temp;
  bool ok = replaced == "a-b" && name == "x.conf" && rc == -1 && temp.valid_;
  std::printf("%s %s %d %s\n", replaced.c_str(), name.c_str(), rc, ok ? "ok" : "FAILED");
  return ok ? 0 : 1;
}

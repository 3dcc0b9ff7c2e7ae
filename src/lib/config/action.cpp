#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <exception>
#include <string>

#include <json/json.h>

#include <velmora/common.h>
#include <velmora/config.h>
#include <velmora/file.h>
#include <velmora/socket.h>

#include "lib/log.h"
#include "lib/posix_io.h"

namespace velmora {
namespace config {
namespace action {
namespace {

constexpr char kLogModule[] = "src/lib/config/action";
constexpr char kQuerySocket[] = "/var/run/velmora_server/local_query.sock";
constexpr char kTreeDir[] = "/var/packages/Velmora-Server/etc/mailconf.d/";

// Reads everything from `fd` and closes it; false when a read fails (for
// instance on a directory), which makes the document unreadable.
bool ReadAndClose(int fd, std::string& data) {
  struct stat st;
  if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size > 0) {
    data.reserve(static_cast<size_t>(st.st_size));
  }
  const bool ok = velmora::internal::ReadAll(fd, &data);
  close(fd);
  return ok;
}

// Parses one JSON document with jsoncpp's classic reader in its default
// features (Features::all()), comments collected: comments are allowed and
// any value may be the root, while a trailing comma, a byte-order mark or a
// document nested deeper than the reader's limit is an error. The builder's
// readers differ from it in more than their settings (they take a leading
// "+" on a number, for one), so the classic reader itself is used. False on
// an error; the reader throws past its depth limit.
bool ParseJson(const std::string& data, Json::Value& root) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  Json::Reader reader(Json::Features::all());
#pragma GCC diagnostic pop
  try {
    return reader.parse(data.data(), data.data() + data.size(), root, true);
  } catch (const std::exception&) {
    return false;
  }
}

int GetFromServer(const std::string& name, std::string& value) {
  const std::string address = KeyTreeStore::instance()->keyComplete(name);
  std::string reply;
  if (common::socket::QuerySockServer(kQuerySocket, "get_value " + address, reply, 0) < 0) {
    VELMORA_LOG("%s", ("Failed get key " + address).c_str());
    return -1;
  }
  value = reply;
  return 0;
}

int GetFromFile(const std::string& name, std::string& value) {
  KeyTreeStore* store = KeyTreeStore::instance();
  std::string tree = store->treeGet(name);
  if (tree.empty()) tree = name.substr(0, name.find('/'));
  tree = Replace(Replace(Replace(tree, "-", "_"), "/", "_"), ".", "_");
  const std::string path = kTreeDir + tree;

  // A tree that was never written has no value; that is not an error.
  if (!sdk::Exist(path)) return 0;

  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    VELMORA_LOG("Failed to open json file %s, error [%m]", path.c_str());
    return 1;
  }
  std::string data;
  Json::Value root;
  if (!ReadAndClose(fd, data) || !ParseJson(data, root)) {
    VELMORA_LOG("Failed to parse Json value of %s", path.c_str());
    return 1;
  }
  const std::string address = store->keyComplete(name);
  const Json::Value* member =
      root.isObject() ? root.find(address.data(), address.data() + address.size()) : nullptr;
  value = member != nullptr && member->isString() ? member->asString() : std::string();
  return 0;
}

}  // namespace

int Get(const std::string& name, std::string& value) {
  if (GetFromServer(name, value) == 0) return 0;
  return GetFromFile(name, value);
}

}  // namespace action
}  // namespace config
}  // namespace velmora

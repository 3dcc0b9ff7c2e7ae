/// @file
/// Configuration key routing: the fixed table that names the tree of every
/// setting key of the suite, and the service registry (the cluster role and
/// the control script of each daemon service, and the services that a switch
/// concerns).
///
/// Threads and processes: KeyTreeStore::instance() is a plain, unsynchronised
/// test-and-set of a static pointer (deliberate: every lookup goes through it,
/// and callers build it before their threads start, so no call pays for a
/// lock; two racing first calls would leak one instance). Call it once before
/// starting threads; after that every lookup only reads fixed maps and may run
/// on any number of threads at once. The instance is never freed, so it stays valid in a
/// forked child. No operation here logs or reports an error.
#ifndef VELMORA_CONFIG_H_
#define VELMORA_CONFIG_H_

#include <map>
#include <string>
#include <vector>

#include <velmora/export.h>

namespace velmora {
/// Configuration key routing and the reader of one setting.
namespace config {

/// A setting is addressed as "<tree>/<key>". A table key ending in "-" names a
/// family: every key made of that text and an instance part (a node name, a
/// domain, a user, a number) belongs to the family's tree. Lookups find the
/// family of a key by cutting it after its first "-" and then match exactly.
class VELMORA_EXPORT KeyTreeStore {
 public:
  /// Fills the four maps from the tables built into the library. Throws only
  /// std::bad_alloc.
  KeyTreeStore();

  /// Returns the process's one instance, building it on first use; it is never
  /// freed. If building throws, nothing is kept and the next call tries again.
  /// Not thread-safe on first use, deliberately: no lock on the lookup path
  /// (see above).
  static KeyTreeStore* instance();

  /// Returns "<tree>/<key>" when the key, or its family (the key up to and
  /// including its first "-"), is a row of the table; otherwise the key
  /// unchanged.
  std::string keyComplete(const std::string& key) const;

  /// Returns the tree of the key or of its family (cut as in keyComplete);
  /// "" when neither is a row of the table.
  std::string treeGet(const std::string& key) const;

  /// Returns a copy of the services that the plain key `key` switches, in
  /// stored order; an empty list for any other text (no family cut).
  std::vector<std::string> getKeyServ(const std::string& key) const;

  /// Returns the control script path of the service; "" for a service
  /// without one or an unknown name.
  std::string getServScript(const std::string& serv) const;

  /// Returns the cluster role of the service (a service name, not a key); ""
  /// for an unknown name, and also the stored role of
  /// mailserver_service_cluster_members.
  std::string roleGet(const std::string& serv) const;

  /// Appends to `list`, in byte-wise order of service names, every service
  /// whose role equals `role` exactly. `list` is not cleared first.
  void roleKeyToServ(const std::string& role, std::vector<std::string>& list) const;

  /// @name Read-only views of the tables
  /// @{
  /// Key or family to tree.
  const std::map<std::string, std::string>& keyTree() const { return keyTree_; }
  /// Service to role.
  const std::map<std::string, std::string>& servRole() const { return servRole_; }
  /// Service to control script.
  const std::map<std::string, std::string>& servScript() const { return servScript_; }
  /// Plain key to services.
  const std::map<std::string, std::vector<std::string>>& keyServs() const { return keyServs_; }
  /// @}

 private:
  /// Fixed after construction.
  std::map<std::string, std::string> keyTree_;
  std::map<std::string, std::string> servRole_;
  std::map<std::string, std::string> servScript_;
  std::map<std::string, std::vector<std::string>> keyServs_;

  /// The singleton; set once by instance() and never reset. Not guarded.
  static KeyTreeStore* instance_;
};

/// The reader of one setting.
namespace action {

/// Reads the setting `name` (a bare key, a family key with its instance part,
/// or a full "tree/key" address): first from the local configuration service,
/// then from the tree's JSON file. Returns 0 with `value` set to the service's
/// reply or the file member's string (empty when the member is missing or not
/// a string); 0 with `value` untouched when the service is down and the tree
/// has no file; 1 when the file cannot be opened or parsed (`value`
/// untouched). Every failure is logged.
[[nodiscard]] VELMORA_EXPORT int Get(const std::string& name, std::string& value);

}  // namespace action
}  // namespace config
}  // namespace velmora

#endif  // VELMORA_CONFIG_H_

#include <string>

#include <velmora/file.h>

#include "lib/log.h"
#include "lib/sdk/owned_temp_file.h"
#include "platform/orvo_platform.h"

namespace velmora {
namespace sdk {
namespace {
constexpr char kLogModule[] = "src/lib/sdk/file_key_value";

// Writes the table's lines into `temp`; false when a write or an allocation
// failed.
bool WriteTable(internal::OwnedTempFile& temp, const OLIBC_SZHASH* table) {
  try {
    return temp.Write(::velmora::internal::KeyFileText(table));
  } catch (...) {
    return false;
  }
}

}  // namespace

FileKeyValue::~FileKeyValue() {
  try {
    // Unsaved changes are written while the table still exists.
    if (write_on_destroy_ && dirty_ && !Write()) {
      VELMORA_LOG("Update key value file(%s) fail", path_.c_str());
    }
  } catch (...) {
  }
  OLIBCSzHashFree(table_);
  table_ = nullptr;
}

bool FileKeyValue::ReadKeyValues(int table_size, const std::string& separator) {
  if (table_ != nullptr) {
    OLIBCHashRemoveAll(table_);
  } else {
    table_ = OLIBCSzHashAlloc(table_size);
  }
  if (table_ == nullptr) return false;
  if (OLIBCFileGetKeys(path_.c_str(), 0, &table_, separator.c_str()) < 0) return false;
  dirty_ = false;
  return true;
}

bool FileKeyValue::Contains(const std::string& key) const {
  return table_ != nullptr && OLIBCSzHashGetValue(table_, key.c_str()) != nullptr;
}

std::string FileKeyValue::Get(const std::string& key) {
  if (table_ == nullptr) return std::string();
  const char* value = OLIBCSzHashGetValue(table_, key.c_str());
  return value != nullptr ? std::string(value) : std::string();
}

bool FileKeyValue::Update(const std::string& key, const std::string& value) {
  if (OLIBCSzHashSetValue(&table_, key.c_str(), value.c_str()) < 0) return false;
  dirty_ = true;
  return true;
}

bool FileKeyValue::Write() {
  internal::FileOwner owner;
  if (!internal::OwnerOf(path_, &owner)) {
    VELMORA_LOG("Stat file error");
    return false;
  }
  // The temporary file lies beside the target, so the rename stays on one
  // file system; it is removed on every path that does not move it.
  internal::OwnedTempFile temp(path_);
  if (!temp.Prepare(owner)) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  // Without a table the target becomes an empty file of the same owner and
  // mode.
  if (table_ != nullptr && !WriteTable(temp, table_)) {
    VELMORA_LOG("initialize temp file failed");
    return false;
  }
  if (temp.Commit() != 0) {
    VELMORA_LOG("Move temp file to %s fail", path_.c_str());
    return false;
  }
  dirty_ = false;
  return true;
}

}  // namespace sdk
}  // namespace velmora

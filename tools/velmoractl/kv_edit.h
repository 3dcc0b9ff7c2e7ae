// kv set: one key of a key=value settings file changed in place, every other
// byte kept, the file replaced atomically.
#ifndef VELMORA_TOOLS_VELMORACTL_KV_EDIT_H_
#define VELMORA_TOOLS_VELMORACTL_KV_EDIT_H_

#include <string>

#include "cli.h"

namespace velmoractl {

// Why `key` cannot be written so that the library's reader finds it; "" when
// it can.
std::string KeyProblem(const std::string& key);

// Why `value` cannot be written so that the reader returns it; "" when it can.
std::string ValueProblem(const std::string& value);

// Sets `key` to `value` in the file text `text`: rewrites the value of the
// key's last line (the one the reader honours) or appends a line; true when a
// line was appended.
bool SetInText(std::string& text, const std::string& key, const std::string& value);

// Sets `key` to `value` in the existing file `path` (a link is followed and
// kept) and replaces that file atomically with its owner, group and mode.
void KvSet(Context& ctx, const std::string& path, const std::string& key, const std::string& value);

}  // namespace velmoractl

#endif  // VELMORA_TOOLS_VELMORACTL_KV_EDIT_H_

#include <sstream>
#include <string>
#include <vector>

#include <velmora/common.h>

namespace velmora {

std::string Replace(const std::string& str, const std::string& from, const std::string& to) {
  std::string result = str;
  std::string::size_type pos = 0;
  while ((pos = result.find(from, pos)) != std::string::npos) {
    result.replace(pos, from.size(), to);
    pos += to.size();
    // An empty `from` matches everywhere: resume one character further so
    // that `to` lands before every character and once at the end. With an
    // empty `to` as well the position never moves (callers never do that).
    if (from.empty() && !to.empty()) ++pos;
  }
  return result;
}

template <typename T>
std::string Join(const std::vector<T>& items, const std::string& sep) {
  std::ostringstream out;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i != 0) out << sep;
    out << items[i];
  }
  return out.str();
}

template VELMORA_EXPORT std::string Join<std::string>(const std::vector<std::string>&,
                                                      const std::string&);

ScopeGuard::ScopeGuard(std::function<void()> action) : action_(std::move(action)) {}

ScopeGuard::~ScopeGuard() noexcept(false) { action_(); }

}  // namespace velmora

// The one shape of every log line of the library:
//   "<module path>:<line>: <process name>: <message>" through syslog(3).
// Each source file names its module path once, in a constant kLogModule.
#ifndef VELMORA_SRC_LIB_LOG_H_
#define VELMORA_SRC_LIB_LOG_H_

#include <errno.h>
#include <syslog.h>

#include <string>

#include <velmora/common.h>

// local1.err, local1.warning and local1.debug.
#define VELMORA_LOG_ERR (LOG_LOCAL1 | LOG_ERR)
#define VELMORA_LOG_WARNING (LOG_LOCAL1 | LOG_WARNING)
#define VELMORA_LOG_DEBUG (LOG_LOCAL1 | LOG_DEBUG)

// errno is kept across the process-name lookup so that a "%m" in the message
// still names the failure being reported.
#define VELMORA_LOG_AT(priority, fmt, ...)                                                \
  do {                                                                                    \
    const int velmora_saved_errno_ = errno;                                               \
    const std::string velmora_process_ = ::velmora::sdk::GetProcessName();                \
    errno = velmora_saved_errno_;                                                         \
    syslog((priority), "%s:%d: %s: " fmt, kLogModule, __LINE__, velmora_process_.c_str(), \
           ##__VA_ARGS__);                                                                \
  } while (0)

#define VELMORA_LOG(fmt, ...) VELMORA_LOG_AT(VELMORA_LOG_ERR, fmt, ##__VA_ARGS__)

#endif  // VELMORA_SRC_LIB_LOG_H_

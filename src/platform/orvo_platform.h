/* Portable platform layer: the few core-library operations that libvelmora
 * uses, with C linkage and the appliance's names, implemented on POSIX.
 *
 * String tables are used by one thread at a time. Every descriptor opened here
 * is close-on-exec. Negative results report failure. */
#ifndef VELMORA_PLATFORM_ORVO_PLATFORM_H_
#define VELMORA_PLATFORM_ORVO_PLATFORM_H_

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A string-to-string table that iterates in insertion order. */
typedef struct OLIBC_SZHASH OLIBC_SZHASH;

/* A new empty table sized for about `size` entries; NULL on failure. */
OLIBC_SZHASH* OLIBCSzHashAlloc(int size);
/* Releases a table; accepts NULL. */
void OLIBCSzHashFree(OLIBC_SZHASH* table);
/* Empties a table, keeping it allocated. 0, or -1 for a NULL table. */
int OLIBCHashRemoveAll(OLIBC_SZHASH* table);
/* The value stored for `key`, or NULL. Valid until the key is set again or the
 * table is emptied or freed. */
const char* OLIBCSzHashGetValue(const OLIBC_SZHASH* table, const char* key);
/* Stores a copy of the pair: an existing key keeps its place and gets the new
 * value, a new key goes to the end. A NULL *table is allocated first. 0, or -1
 * on failure. */
int OLIBCSzHashSetValue(OLIBC_SZHASH** table, const char* key, const char* value);
/* Number of pairs; 0 for NULL. */
size_t OLIBCSzHashCount(const OLIBC_SZHASH* table);
/* The pair at insertion position `index`. 0, or -1 when out of range. */
int OLIBCSzHashGetAt(const OLIBC_SZHASH* table, size_t index, const char** key, const char** value);

/* Reads the key/value lines of the file at `path` into *table (allocated when
 * NULL), each line split at the first `separator`. A trailing "\r" is dropped,
 * a value wrapped in one pair of double quotes loses them, and blank lines,
 * lines starting with "#" and lines without a separator are skipped. `flags`
 * must be 0. 0, or -1 when the file cannot be read. */
int OLIBCFileGetKeys(const char* path, int flags, OLIBC_SZHASH** table, const char* separator);
/* Truncates the file at `path` and writes one "key=value\n" line per pair, in
 * table order. `flags` and `mode` must be 0. 0, or -1 when any write fails. */
int OLIBCFileSetKeys(const char* path, const OLIBC_SZHASH* table, int flags, int mode);

/* Creates a missing file (mode 0644 less umask) or updates its times. 0 or -1. */
int OLIBCFileTouch(const char* path);

/* A user of the system's passwd database. */
typedef struct ORVOUSER {
  char* szName;
  uint32_t uid;
  uint32_t gid;
  char* szHome;
  char* szShell;
} ORVOUSER;

/* Looks a user up by name; *user receives a record to release with
 * ORVOUserFree. 0, or -1 when there is no such user. */
int ORVOUserGet(const char* name, ORVOUSER** user);
/* The same by uid. */
int ORVOUserGetByUID(uint32_t uid, ORVOUSER** user);
/* Releases a record; accepts NULL. */
void ORVOUserFree(ORVOUSER* user);
/* Writes the real name of user `name` (its passwd name) into `buf` of `size`
 * bytes, NUL-terminated. 0, or -1 when the user is unknown or the name does
 * not fit. */
int OLIBUserRealNameGet(const char* name, char* buf, int size);

/* Runs the program `path` with the NULL-terminated arguments that follow
 * `flags` (argv[0] is `path`; no shell) and waits for it. Returns the
 * program's exit status (0 to 255) when it ran and exited, whatever that
 * status; -1 when it could not be started or waited for, -2 when a signal
 * ended it. So a result of 0 or more means the program ran to its end; what
 * a non-zero status means is the program's business. The flag bits are
 * accepted and unused. */
int OLIBCExecl(const char* path, int flags, ...);

/* Forks a child that nobody has to wait for. -1 on failure, 0 in the child,
 * the child's pid in the parent. The parent is left with no zombie. */
int OLIBCProcForkChildNoWait(void);

#ifdef __cplusplus
}

#include <string>

namespace velmora {
namespace internal {
/* The text OLIBCFileSetKeys writes: one "key=value\n" line per pair, in table
 * order, every byte of each key and value kept (a NUL too). Empty for NULL. */
std::string KeyFileText(const OLIBC_SZHASH* table);
}  // namespace internal
}  // namespace velmora
#endif

#endif /* VELMORA_PLATFORM_ORVO_PLATFORM_H_ */

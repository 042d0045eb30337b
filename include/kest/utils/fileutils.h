/// @file
/// Paths, files and folders: type tests, durable syncs, recursive creation, removal, copying and
/// listing, path texts. The functions keep no state and may be called from any thread.
///
/// They never throw for control flow. Those that say so log their failures; the others are silent.
/// A failure leaves `errno` as the failing system call set it. A null path is a failure. A
/// `std::string` with a NUL byte in it counts as an empty path, as no file can have that name. Only
/// cpR() ever waits for the other end of a FIFO.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <kest/utils/api.h>

namespace kest::utils {

/// @name Type tests
/// @{

/// Whether `path` is a directory. Symbolic links are followed.
KEST_API bool isDir(const std::string& path);

/// Whether `path` is a regular file. Symbolic links are followed.
KEST_API bool isFile(const std::string& path);

/// Whether there is an entry of any type at `path`. With `followSymlinks` a link counts as what it
/// points to, so that a dangling one does not exist; without, every link exists.
KEST_API bool fileExists(const char* path, bool followSymlinks);

/// Modification time in nanoseconds since 1970-01-01 00:00:00 UTC. Symbolic links are followed.
/// @param ns  left alone on failure.
KEST_API bool lastModTime(const std::string& path, uint64_t& ns);
/// @}

/// @name Durable syncs
/// @{

/// Writes a directory's entries to the medium (`fsync`).
KEST_API bool syncDir(const char* path);

/// Writes a file to the medium and, with `syncParent`, the directory that it is in, which makes a
/// newly created or renamed file durable.
KEST_API bool syncFile(const char* path, bool syncParent);
/// @}

/// @name Making, removing, copying
/// @{

/// Creates a directory, with mode 0755 less the umask, and those above it that are missing.
///
/// An entry that turns up while it is being created counts as created. A dangling link looks the
/// same: as the last component it gives true although there is no directory.
/// @param sync  also syncs the parent of every directory created.
/// @return false for an empty path, and when a component is no directory or cannot be created.
KEST_API bool mkdirP(const std::string& path, bool sync);

/// Removes an entry with everything in it. Symbolic links are removed, never followed, also when an
/// entry is swapped for one meanwhile. Neither depth nor the number of entries is limited, and no
/// more than three descriptors are in use at a time.
///
/// A part that cannot be removed does not stop the rest from going.
/// @return true when everything is gone and was removed by this call: a missing path and an entry
///         that somebody else removes meanwhile are failures.
KEST_API bool rmRf(const std::string& path);

/// Copies a file or a whole directory with `/bin/cp -r`. Waits for it without time limit.
/// @return true when the program succeeded. Logs only what running a program logs.
KEST_API bool cpR(const std::string& src, const std::string& dst);

/// Copies the content of a file, its owner and its mode, inside the kernel.
///
/// Both descriptors keep their positions. The size is taken once, at the start: a source that
/// becomes shorter meanwhile gives a copy that is as short, and true. A destination that was longer
/// keeps its tail. A source without a size (FIFO, device, file of /proc) gives an empty copy. An
/// owner or mode that cannot be set is logged and does not fail the copy. Logs failures.
/// @return false for a negative descriptor and when a system call fails, such as on a full medium;
///         the destination then holds the part that was copied.
KEST_API bool copyFile(int srcFd, int dstFd);

/// The same by path. The destination is created or emptied first; on failure what was copied stays.
/// A file copied onto itself, through whatever links, stays as it is and gives true.
KEST_API bool copyFile(const char* src, const char* dst);

/// Sets both times of a file to now. A missing file is created, with mode 0666 less the umask, when
/// `create` is set. The file is opened for writing afterwards, so a directory or a read-only file
/// gives false although its times are set. Logs failures.
KEST_API bool touchFile(const std::string& path, bool create);

/// Whole content of a regular file. Empty when the file cannot be opened, cannot be read to the
/// size that it has, or does not fit into memory; nothing is logged beyond what File logs.
KEST_API std::vector<uint8_t> readFromFile(const std::string& path);
/// @}

/// @name Listing
/// @{

/// Replaces `out` by the paths that match a shell pattern, sorted as glob(3) does; a leading `~`
/// stands for the home directory.
/// @return 0 in every case: look at `out`.
KEST_API int glob(const char* pattern, std::vector<std::string>& out);

/// Adds the entries of a folder to `out`: the key is the real path, with '/' at its end for a
/// directory, the value tells whether it is one. What `out` held before stays.
///
/// Symbolic links stand for what they point to, so a link and its target share one key, and
/// `recursive` follows them, also out of the folder. Each real folder is listed once; a link that
/// points back up the tree ends there. Entries that cannot be resolved (dangling links, paths
/// beyond `PATH_MAX`) and folders below `path` that cannot be opened are logged and left out.
/// @param path  empty stands for the current directory.
/// @return false, after a log line, when `path` itself cannot be opened.
KEST_API bool listFolder(const std::string& path, std::map<std::string, bool>& out, bool recursive);
/// @}

/// @name Waiting
/// @{

/// Waits until each of the paths exists at some time; symbolic links are followed. Looks again
/// every millisecond, and without a pause towards the end of the time. Returns as soon as none is
/// missing.
/// @param timeoutMs  0 looks once; a negative time not at all, which fails.
/// @return false, after a log line with what is missing, when the time is over.
KEST_API bool waitForFiles(const std::set<std::string>& paths, int timeoutMs);
/// @}

/// @name Path texts
/// @{

/// Normalises a path as text, without a look at the file system: doubled slashes, "." and "name/.."
/// go; a leading "./" or ".." and a slash at the end stay. A backslash keeps the character after it
/// from meaning anything; both are copied.
///
/// Two results are odd, and relied upon: what reduces to the root alone ("/..", "/a/..") gives the
/// empty text, and a relative path whose names cancel before a doubled slash becomes absolute
/// ("a/..//b" gives "/b").
/// @param out  empty on failure. May be the object that `path` is in.
/// @return false for a null or empty path and for one that ends within an escape.
KEST_API bool normalizePath(const char* path, std::string& out);
KEST_API bool normalizePath(const std::string& path, std::string& out);

/// Normalises a path and resolves all symbolic links in it. What it leads to has to exist.
/// @param out    the real path, with '/' at its end for a directory. On failure of no meaning.
/// @param isDir  whether it is a directory; left alone on failure.
/// @param st     unless null, gets what `stat` tells about it.
KEST_API bool resolvePath(const char* path, std::string& out, bool& isDir, struct stat* st);
KEST_API bool resolvePath(const std::string& path, std::string& out, bool& isDir, struct stat* st);

/// The text after the last '/'; the whole text when there is none, empty when it ends with one or
/// is null.
KEST_API std::string basename_safe(const char* path);
KEST_API std::string basename_safe(const std::string& path);

/// POSIX `dirname` of the first 4096 bytes of a path: "." when there is no slash in it, when it is
/// empty or null.
KEST_API std::string dirname_safe(const char* path);
KEST_API std::string dirname_safe(const std::string& path);
/// @}

}  // namespace kest::utils

// File and directory helpers over the system calls; each answers with a plain result and keeps no
// state. Paths are NUL-terminated. Callable from any thread (createDirPath logs through the
// process-wide logging object).
#pragma once

namespace tavrinCommon {
namespace dirUtil {

bool fileExists(const char* path);
bool fileReadable(const char* path);
bool fileWritable(const char* path);
// stat succeeds and the path is a directory.
bool directoryExists(const char* path);
// The path can be opened as a directory.
bool isDir(const char* path);
bool fileRename(const char* from, const char* to);
// A file or an empty directory.
bool fileDelete(const char* path);
// Bytes, or -1 when the path cannot be stat'ed.
int fileSize(const char* path);
// Reads at most size - 1 bytes of a small (sysfs, procfs) file and NUL-terminates them; true when
// at least one byte was read.
bool sysfsRead(const char* path, char* buffer, unsigned size);
// Truncates and writes; the number of bytes written, or -1 when the file cannot be opened.
int sysfsWrite(const char* path, const char* data, unsigned length);
// Creates every missing directory of the path (mode 0755); true when the path is a directory at
// the end. Each directory created is logged at Debug ("Created dir: ...").
bool createDirPath(const char* path);
// The path and everything below it; true when nothing failed (a missing path is no failure).
bool removeDir(const char* path);

}  // namespace dirUtil
}  // namespace tavrinCommon

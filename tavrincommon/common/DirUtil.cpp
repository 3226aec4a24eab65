#include "tavrincommon/common/DirUtil.h"

#include "tavrincommon/log/DefaultOrigins.h"
#include "tavrincommon/log/GlobalLogging.h"

#include <cstdio>
#include <filesystem>
#include <string>
#include <system_error>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace tavrinCommon {
namespace dirUtil {

bool fileExists(const char* path) { return access(path, F_OK) == 0; }

bool fileReadable(const char* path) { return access(path, R_OK) == 0; }

bool fileWritable(const char* path) { return access(path, W_OK) == 0; }

bool directoryExists(const char* path) {
  struct stat info;
  return stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool isDir(const char* path) {
  DIR* dir = opendir(path);
  if (!dir) return false;
  closedir(dir);
  return true;
}

bool fileRename(const char* from, const char* to) { return std::rename(from, to) == 0; }

bool fileDelete(const char* path) { return std::remove(path) == 0; }

int fileSize(const char* path) {
  struct stat info;
  if (stat(path, &info) != 0) return -1;
  return static_cast<int>(info.st_size);
}

bool sysfsRead(const char* path, char* buffer, unsigned size) {
  if (size == 0) return false;
  std::FILE* file = std::fopen(path, "rb");
  if (!file) return false;
  const size_t count = std::fread(buffer, 1, size - 1, file);
  buffer[count] = '\0';
  std::fclose(file);
  return count > 0;
}

int sysfsWrite(const char* path, const char* data, unsigned length) {
  std::FILE* file = std::fopen(path, "wb");
  if (!file) return -1;
  const size_t count = std::fwrite(data, 1, length, file);
  std::fclose(file);
  return static_cast<int>(count);
}

namespace {

void makeDir(const std::string& path) {
  // Failures, most often "exists already", are expected; the final isDir decides.
  if (mkdir(path.c_str(), 0755) == 0) {
    TAVRIN_LOG(tavrinLog::getGlobalLogging(), DefaultOrigins::Firmware,
               tavrinLog::SeverityLevel::Debug, "Created dir: %s", path.c_str());
  }
}

}  // namespace

bool createDirPath(const char* path) {
  if (!path || !*path) return true;
  const std::string whole(path);
  for (size_t slash = whole.find('/', 1); slash != std::string::npos;
       slash = whole.find('/', slash + 1)) {
    makeDir(whole.substr(0, slash));
  }
  makeDir(whole);
  return isDir(path);
}

bool removeDir(const char* path) {
  std::error_code error;
  std::filesystem::remove_all(path, error);
  return !error;
}

}  // namespace dirUtil
}  // namespace tavrinCommon

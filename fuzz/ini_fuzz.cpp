// libFuzzer target for the INI profile reader. The input is split into a
// section name, a key and the file content; every reader runs over it,
// through a fresh load per call and through the speed cache.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "global/ini-profile_p.h"
#include "zorv2000/ini-profile.h"

namespace {

std::string gPath;

void removeContentFile() { unlink(gPath.c_str()); }

// One file per fuzzing process, rewritten for every input and removed at
// exit.
const char* contentPath() {
  std::string& path = gPath;
  if (path.empty()) {
    char pattern[] = "/tmp/ini_fuzz.XXXXXX";
    int fd = mkstemp(pattern);
    if (fd < 0) abort();
    close(fd);
    path = pattern;
    atexit(removeContentFile);
  }
  return path.c_str();
}

void writeContent(const uint8_t* data, size_t size) {
  FILE* file = fopen(contentPath(), "wb");
  if (!file) abort();
  if (size && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
}

// Every reader once over the file (or the cache when one is set).
void readAll(const char* path, const char* section, const char* key) {
  static const uint32_t kSizes[] = {1, 2, 3, 8, 20, 512, 1024};
  for (uint32_t size : kSizes) {
    char* buffer = (char*)malloc(size);
    int n =
        ZorvGetPrivateProfileString(section, key, "def", buffer, size, path);
    if (n < 0 || (uint32_t)n >= size || buffer[size - 1] != '\0' ||
        strlen(buffer) != (size_t)n) {
      abort();
    }
    free(buffer);
  }
  char one[1];
  if (ZorvGetPrivateProfileString(section, key, nullptr, one, 0, path) != 0) {
    abort();
  }
  char* allocated = nullptr;
  int n = Zorv_I_GetPrivateProfileString(section, key, "def", nullptr, 0, path,
                                         &allocated);
  if (allocated && strlen(allocated) != (size_t)n) abort();
  free(allocated);
  int exists = Zorv_I_GetPrivateProfileString(section, nullptr, "def", nullptr,
                                              0, path, nullptr);
  if (exists != 0 && exists != 1) abort();
  free(ZorvGetIniString(path, section, key));
  (void)ZorvGetIniInt(path, section, 12, key);
  (void)GetIniWord(path, section, 0x1234, key);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  size_t nSection = data[0] % 24;
  size_t nKey = data[1] % 24;
  data += 2;
  size -= 2;
  if (nSection > size) nSection = size;
  std::string section((const char*)data, nSection);
  data += nSection;
  size -= nSection;
  if (nKey > size) nKey = size;
  std::string key((const char*)data, nKey);
  data += nKey;
  size -= nKey;
  writeContent(data, size);

  readAll(contentPath(), section.c_str(), key.c_str());
  if (ZorvSpeedIniAccess(contentPath()) == 0) {
    readAll("/nonexistent/ignored.ini", section.c_str(), key.c_str());
  }
  ZorvEndSpeedIniAccess();
  return 0;
}

// libFuzzer target for the USB floppy test of the SCSI scan: the input
// becomes a usb-storage entry file and a USB device list in a /proc tree
// of the fuzzing process's own, and the test runs over them for the host
// the first byte names.
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "global/zorv2k_scsi_p.h"

namespace {

std::string gRoot;

void removeTree() {
  std::string command = "rm -rf '" + gRoot + "'";
  if (system(command.c_str()) != 0) return;
}

// The /proc tree, made once per process and removed at exit.
const std::string& procRoot() {
  if (gRoot.empty()) {
    char pattern[] = "/tmp/scsiproc_fuzz.XXXXXX";
    if (!mkdtemp(pattern)) abort();
    gRoot = pattern;
    mkdir((gRoot + "/scsi").c_str(), 0755);
    mkdir((gRoot + "/scsi/usb-storage-0").c_str(), 0755);
    mkdir((gRoot + "/bus").c_str(), 0755);
    mkdir((gRoot + "/bus/usb").c_str(), 0755);
    atexit(removeTree);
    ZorvScsi_I_pszProcDirectory = gRoot.c_str();
  }
  return gRoot;
}

void writeFile(const std::string& path, const uint8_t* data, size_t size) {
  FILE* file = fopen(path.c_str(), "wb");
  if (!file) abort();
  if (size && fwrite(data, 1, size, file) != size) abort();
  fclose(file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 3) return 0;
  int host = data[0] % 4;
  size_t nEntry = ((size_t)data[1] << 8 | data[2]);
  data += 3;
  size -= 3;
  if (nEntry > size) nEntry = size;
  const std::string& root = procRoot();
  std::string entry = root + "/scsi/usb-storage-0/" + std::to_string(host);
  writeFile(entry, data, nEntry);
  writeFile(root + "/bus/usb/devices", data + nEntry, size - nEntry);
  int result = ZorvScsi_I_IsUsbFloppy(host);
  if (result != 0 && result != 1) abort();
  unlink(entry.c_str());
  return 0;
}

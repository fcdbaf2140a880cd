/*
 * fifo-names.cpp: the pipe directory, the bin directory and the names of the
 * server FIFO and of this process's own FIFO, each composed once into a
 * 256-byte buffer and kept. Takes no lock: the first calls happen before the
 * pipe thread starts. Only checks directories with access(); opens nothing.
 */
#include "zorv2000/fifo-names.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "global/primitives_p.h"

/* The message broker's FIFO, to which every client writes. */
static const char kServerFifoBase[] = "ZORVFIFO";
/* The framework directory that a bin directory must contain. */
static const char kFrameworkDirName[] = "zorv2000";

/* Process-wide names; an empty buffer means "not decided yet". */
static struct {
  /* unguarded: decided by the first caller, before any thread starts */
  char pipeDirectory[ZORV_PATH_SIZE];
  /* unguarded: set by the controller's start path only */
  char binDirectory[ZORV_PATH_SIZE];
  /* unguarded: composed by the first caller, before any thread starts */
  char serverFifoName[ZORV_PATH_SIZE];
  /* unguarded: composed by the first caller, before any thread starts */
  char clientFifoName[ZORV_PATH_SIZE];
} state;

/* resolveDotPath(): `path` into `out` (ZORV_PATH_SIZE bytes), a path that
 * starts with "." taken relative to the working directory. */
static void resolveDotPath(const char* path, char* out) {
  if (path[0] == '.') {
    out[0] = '\0';
    if (!ZorvGetCwd(out, ZORV_PATH_SIZE)) out[0] = '\0';
    /* Deliberate: only the first character is dropped, so "./pipes" gives
     * "<cwd>/pipes" and "." the working directory, but ".pipes" gives
     * "<cwd>pipes"; installations pass "." or "./name". */
    ZorvSafeStrCat(out, path + 1, ZORV_PATH_SIZE);
  } else {
    ZorvSafeStrCpy(out, path, ZORV_PATH_SIZE);
  }
}

/* composeDefaultServerName(): <pipe dir>/ZORVFIFO into the server buffer. */
static void composeDefaultServerName(void) {
  ZorvSafeStrCpy(state.serverFifoName, ZorvGetPipeDirectory(), ZORV_PATH_SIZE);
  ZorvSafeStrCat(state.serverFifoName, "/", ZORV_PATH_SIZE);
  ZorvSafeStrCat(state.serverFifoName, kServerFifoBase, ZORV_PATH_SIZE);
}

/* ZorvGetPipeDirectory(): ZORV_TMP when searchable, else the working
 * directory, decided whenever the buffer is empty. */
const char* ZorvGetPipeDirectory(void) {
  if (state.pipeDirectory[0]) return state.pipeDirectory;
  const char* pEnv = getenv("ZORV_TMP");
  if (pEnv) {
    ZorvSafeStrCpy(state.pipeDirectory, pEnv, ZORV_PATH_SIZE);
    if (access(state.pipeDirectory, X_OK) != 0) {
      /* Deliberate: "Acces" here and "Access" in ZorvSetPipeDirectory();
       * log watchers match each message byte for byte. */
      fprintf(stderr, "*****************\nCannot Acces %s\n****************\n",
              state.pipeDirectory);
      state.pipeDirectory[0] = '\0';
    }
  }
  if (!state.pipeDirectory[0]) {
    if (!ZorvGetCwd(state.pipeDirectory, ZORV_PATH_SIZE))
      state.pipeDirectory[0] = '\0';
  }
  return state.pipeDirectory;
}

/* ZorvSetPipeDirectory(): set the pipe directory; 0 or access()'s result.
 * A null path returns -1 and changes nothing. */
int ZorvSetPipeDirectory(const char* path) {
  if (!path) return -1;
  resolveDotPath(path, state.pipeDirectory);
  int rc = access(state.pipeDirectory, X_OK);
  if (rc != 0) {
    fprintf(stderr, "*****************\nCannot Access %s\n****************\n",
            state.pipeDirectory);
    state.pipeDirectory[0] = '\0';
  }
  return rc;
}

/* ZorvGetBinDirectory(): the bin directory as set, possibly empty. */
const char* ZorvGetBinDirectory(void) { return state.binDirectory; }

/* ZorvSetBinDirectory(): set the bin directory, which must contain
 * "zorv2000"; 0 or access()'s result. A null path returns -1 and changes
 * nothing. */
int ZorvSetBinDirectory(const char* path) {
  if (!path) return -1;
  resolveDotPath(path, state.binDirectory);
  char framework[ZORV_PATH_SIZE];
  ZorvSafeStrCpy(framework, state.binDirectory, ZORV_PATH_SIZE);
  ZorvSafeStrCat(framework, "/", ZORV_PATH_SIZE);
  ZorvSafeStrCat(framework, kFrameworkDirName, ZORV_PATH_SIZE);
  int rc = access(framework, X_OK);
  if (rc != 0) {
    fprintf(stderr,
            "*****************\nCannot Acces zorv2000 in %s\n"
            "****************\n",
            state.binDirectory);
    state.binDirectory[0] = '\0';
  }
  return rc;
}

/* ZorvGetServerFifoName(): the server FIFO, the default form on first use. */
const char* ZorvGetServerFifoName(void) {
  if (!state.serverFifoName[0]) composeDefaultServerName();
  return state.serverFifoName;
}

/* ZorvSetServerFifoName(): <pipe dir>/ZORVFIFO_<pid>, pid 0 for this
 * process. */
const char* ZorvSetServerFifoName(int32_t pid) {
  if (pid == 0) pid = ZorvGetPid();
  char suffix[32];
  snprintf(suffix, sizeof suffix, "_%li", static_cast<long>(pid));
  composeDefaultServerName();
  ZorvSafeStrCat(state.serverFifoName, suffix, ZORV_PATH_SIZE);
  return state.serverFifoName;
}

/* ZorvSetServerFifoNameEx(): a full path, or the default for null or "". */
const char* ZorvSetServerFifoNameEx(const char* name) {
  if (name && name[0])
    ZorvSafeStrCpy(state.serverFifoName, name, ZORV_PATH_SIZE);
  else
    composeDefaultServerName();
  return state.serverFifoName;
}

/* ZorvGetClientFifoName(): <pipe dir>/ZORV_<cached pid>, composed once. */
const char* ZorvGetClientFifoName(void) {
  if (!state.clientFifoName[0]) {
    char suffix[32];
    snprintf(suffix, sizeof suffix, "/ZORV_%li",
             static_cast<long>(ZorvGetClientPid()));
    ZorvSafeStrCpy(state.clientFifoName, ZorvGetPipeDirectory(),
                   ZORV_PATH_SIZE);
    ZorvSafeStrCat(state.clientFifoName, suffix, ZORV_PATH_SIZE);
  }
  return state.clientFifoName;
}

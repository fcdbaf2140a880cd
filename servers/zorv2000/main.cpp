/*
 * main.cpp: zorv2000 [trace], the message broker and start program. Owns the
 * server FIFO of its pipe directory (one broker per directory), starts the
 * engines beside it, routes messages, and stops in order. Exit status 0 after
 * a stop, 2 when it cannot set up, 3 when another broker serves the directory.
 */
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include "servers/common/server-common.h"
#include "servers/zorv2000/mb-clients.h"
#include "servers/zorv2000/mb-engines.h"
#include "servers/zorv2000/mb-router.h"
#include "zorv2000/fifo-names.h"
#include "zorv2000/pipe-lowlevel.h"
#include "zorv2000/primitives.h"
#include "zorv2000/tracing.h"

/* Exit statuses. */
enum { MB_EXIT_OK = 0, MB_EXIT_SETUP = 2, MB_EXIT_ALREADY_RUNNING = 3 };

/* Clients are checked, engines reaped, this often. */
enum { MB_CHECK_MS = 500 };
/* Wait slice while stopping (the engines' ends are polled) and while the
 * start-up gate is closed. */
enum { MB_STOPPING_SLICE_MS = 20, MB_GATE_SLICE_MS = 50 };

/* Set by the stop signals; read by the loop. */
static volatile sig_atomic_t gStopSignal = 0;

/* Process-wide state of the broker's main unit. */
static struct {
  /* unguarded: the main thread only (the pipe thread reads none of it) */
  char szServerFifo[ZORV_PATH_SIZE];
  int32_t serverFd; /* the server FIFO, read through the pipe layer */
  int keepFd;       /* our own writer, so the FIFO never reads as ended */
  int lockFd;       /* the pipe directory, flock()ed */
} broker = {{0}, -1, -1, -1};

/* onStopSignal(): SIGTERM, SIGINT, SIGHUP. */
static void onStopSignal(int signalNumber) {
  (void)signalNumber;
  gStopSignal = 1;
}

/* installSignals(): the stop signals end the loop in order. */
static void installSignals(void) {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = onStopSignal;
  sigemptyset(&sa.sa_mask);
  /* No SA_RESTART: the signal must end the wait on the FIFO. */
  sigaction(SIGTERM, &sa, NULL);
  sigaction(SIGINT, &sa, NULL);
  sigaction(SIGHUP, &sa, NULL);
}

/* stopSignalSet(): the set of the stop signals. */
static void stopSignalSet(sigset_t* pSet) {
  sigemptyset(pSet);
  sigaddset(pSet, SIGTERM);
  sigaddset(pSet, SIGINT);
  sigaddset(pSet, SIGHUP);
}

/* lockPipeDirectory(): an exclusive flock() on the directory itself, so
 * nothing is left behind and a broker that dies releases it. Returns the
 * descriptor, -1 when another broker holds it, -2 on other errors. */
static int lockPipeDirectory(const char* directory) {
  int fd = open(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return -2;
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    int bBusy = errno == EWOULDBLOCK;
    close(fd);
    return bBusy ? -1 : -2;
  }
  return fd;
}

/* openServerFifo(): a fresh FIFO under the default server name, read
 * through the pipe layer. 1 on success. */
static int openServerFifo(void) {
  snprintf(broker.szServerFifo, sizeof broker.szServerFifo, "%s",
           ZorvGetServerFifoName());
  /* With the directory locked, a FIFO standing there is a dead broker's. */
  unlink(broker.szServerFifo);
  ZorvPipeUMask(0);
  if (ZorvPipeMkFifo(broker.szServerFifo) != 0) {
    fprintf(stderr, "zorv2000: cannot make %s: %s\n", broker.szServerFifo,
            strerror(errno));
    return 0;
  }
  broker.serverFd = ZorvPipeOpen(broker.szServerFifo, 0);
  if (broker.serverFd < 0) {
    fprintf(stderr, "zorv2000: cannot open %s\n", broker.szServerFifo);
    return 0;
  }
  fcntl(broker.serverFd, F_SETFD, FD_CLOEXEC);
  broker.keepFd = open(broker.szServerFifo, O_WRONLY | O_NONBLOCK | O_CLOEXEC);
  return broker.keepFd >= 0;
}

/* readAndRoute(): everything complete on the FIFO now. 1 when something
 * was handed out. */
static int readAndRoute(void) {
  char* pData = NULL;
  int32_t n = ZorvPipeRead(broker.serverFd, &pData);
  if (n <= 0) return 0;
  ZorvMb_I_HandleBatch(pData, n);
  free(pData);
  return 1;
}

/* serve(): the loop, until the stop is done. */
static void serve(void) {
  int bStopping = 0;
  int bGateReleased = 0;
  uint64_t nextCheckMs = ZorvServerNowMs() + MB_CHECK_MS;
  for (;;) {
    if (!bStopping && (gStopSignal || ZorvMb_I_StopRequested())) {
      bStopping = 1;
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "stopping the framework\n");
      ZorvMb_I_RefuseStartups();
    }
    uint64_t now = ZorvServerNowMs();
    if (bStopping && ZorvMb_I_StepEngineStop(now)) return;
    if (now >= nextCheckMs) {
      ZorvMb_I_ReapEngines();
      ZorvMb_I_CheckClients(now);
      nextCheckMs = now + MB_CHECK_MS;
    }
    if (!bGateReleased && ZorvMb_I_StartupGateOpen()) {
      bGateReleased = 1;
      ZorvMb_I_ReleasePendingStartups();
    }
    /* Whatever the pipe thread queued meanwhile goes out now; waiting on
     * the FIFO first would cost the layer's 1 ms pause. */
    if (readAndRoute()) continue;
    uint64_t waitMs = nextCheckMs > now ? nextCheckMs - now : 0;
    if (bStopping && waitMs > MB_STOPPING_SLICE_MS)
      waitMs = MB_STOPPING_SLICE_MS;
    if (!bGateReleased && waitMs > MB_GATE_SLICE_MS) waitMs = MB_GATE_SLICE_MS;
    int rc = ZorvPipeSelect(broker.serverFd, -1, (uint32_t)waitMs);
    if (rc < 0) {
      /* A signal (looked at next), or a wait that cannot be made: do not
       * spin on it. */
      ZorvSleep(1);
      continue;
    }
    if (rc == 0 || (rc & 1) == 0) continue;
    /* Something complete is queued; when it waits behind a message whose
     * sender died half-way, the pipe layer gives that one up after its
     * stale bound and routing goes on. */
    readAndRoute();
  }
}

/* cleanUp(): the FIFO goes first, so no client finds a broker that no
 * longer reads; then descriptors, the pipe thread and the layer. */
static void cleanUp(void) {
  if (broker.szServerFifo[0]) unlink(broker.szServerFifo);
  ZorvMb_I_CloseAllClients();
  if (broker.serverFd >= 0) ZorvPipeClose(broker.serverFd);
  if (broker.keepFd >= 0) close(broker.keepFd);
  ZorvStopReadWriteThread();
  ZorvCleanupPipes();
}

/* main(): lock, FIFO, pipe thread, engines, the loop, the stop. */
int main(int argc, char** argv) {
  int bTrace = ZorvServerTakeArguments("zorv2000", argc, argv);
  const char* pDirectory = ZorvGetPipeDirectory();
  broker.lockFd = lockPipeDirectory(pDirectory);
  if (broker.lockFd == -1) {
    fprintf(stderr,
            "zorv2000: another message broker already serves the pipe "
            "directory %s; not started\n",
            pDirectory);
    return MB_EXIT_ALREADY_RUNNING;
  }
  if (broker.lockFd < 0 || !ZorvMb_I_InitClients(pDirectory)) {
    fprintf(stderr, "zorv2000: cannot use the pipe directory %s: %s\n",
            pDirectory, strerror(errno));
    return MB_EXIT_SETUP;
  }
  installSignals();
  ZorvInitPipes();
  ZorvPipeSignalHandle();
  if (!openServerFifo()) {
    cleanUp();
    return MB_EXIT_SETUP;
  }
  /* The stop signals go to this thread, whose wait they end; the pipe
   * thread starts with them blocked. */
  sigset_t stopSignals;
  stopSignalSet(&stopSignals);
  pthread_sigmask(SIG_BLOCK, &stopSignals, NULL);
  int rc = ZorvInitReadWriteThread();
  pthread_sigmask(SIG_UNBLOCK, &stopSignals, NULL);
  if (rc != 0) {
    fprintf(stderr, "zorv2000: cannot start the pipe thread\n");
    cleanUp();
    return MB_EXIT_SETUP;
  }
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "serving %s\n", broker.szServerFifo);

  char szOwnDirectory[4096];
  if (ZorvServerOwnDirectory(szOwnDirectory, sizeof szOwnDirectory))
    ZorvMb_I_StartEngines(szOwnDirectory, bTrace);
  else
    fprintf(stderr, "zorv2000: own directory unknown: no engines started\n");

  serve();
  ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "stopped\n");
  cleanUp();
  close(broker.lockFd);
  return MB_EXIT_OK;
}

/*
 * mb-engines.cpp: starts the engine programs found beside the broker, holds
 * ordinary start-ups until they are connected, and stops them in order at
 * the end. Runs on the broker's one thread; no locks. Children are reaped
 * here only, with waitpid() on their own pids.
 */
#include "servers/zorv2000/mb-engines.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "servers/common/server-common.h"
#include "servers/zorv2000/mb-clients.h"
#include "zorv2000/tracing.h"

extern char** environ;

/* Where an engine stands. */
enum EngineState {
  ENGINE_ABSENT = 0,  /* not started (no program) */
  ENGINE_RUNNING = 1, /* started, not reaped */
  ENGINE_ENDED = 2    /* reaped */
};

/* Steps of stopping one engine. */
enum StopStep { STOP_ASK = 0, STOP_WAIT_ASKED = 1, STOP_WAIT_TERM = 2 };

/* One engine program. */
typedef struct MbEngine {
  const char* program;     /* file name beside the broker */
  const char* clientClass; /* the class it connects with */
  pid_t pid;
  int state; /* EngineState */
} MbEngine;

/* Process-wide state of the unit. */
static struct {
  /* unguarded: the broker's one thread only. Start order: the NLS engine
   * first, since the diagnostic engine translates through it; stop order is
   * the reverse. */
  MbEngine aEngines[2];
  /* unguarded: as above */
  uint64_t gateDeadlineMs;
  int bGateOpen;
  /* unguarded: the stop in progress: engine index counting down, its step
   * and deadline */
  int iStopping;
  int stopStep;
  uint64_t stopDeadlineMs;
  int bStopBegun;
} engines = {{{"nlsengine", "NLSENGINE", -1, ENGINE_ABSENT},
              {"diagengine", "DIAGENGINE", -1, ENGINE_ABSENT}},
             0,
             0,
             0,
             STOP_ASK,
             0,
             0};

enum {
  MB_ENGINE_COUNT = (int)(sizeof engines.aEngines / sizeof engines.aEngines[0])
};

/* startOne(): posix_spawn() of one engine; its pid or -1. */
static pid_t startOne(const char* path, const char* program, int bTrace) {
  posix_spawnattr_t attr;
  if (posix_spawnattr_init(&attr) != 0) return -1;
  /* The broker blocks its stop signals in the pipe thread; the engine
   * starts with nothing blocked and default dispositions. */
  sigset_t empty;
  sigemptyset(&empty);
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGHUP);
  posix_spawnattr_setsigmask(&attr, &empty);
  posix_spawnattr_setsigdefault(&attr, &defaults);
  posix_spawnattr_setflags(&attr,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  char* argv[3];
  argv[0] = (char*)program;
  argv[1] = bTrace ? (char*)"trace" : NULL;
  argv[2] = NULL;
  pid_t pid = -1;
  int rc = posix_spawn(&pid, path, NULL, &attr, argv, environ);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    fprintf(stderr, "zorv2000: cannot start %s: %s\n", path, strerror(rc));
    return -1;
  }
  return pid;
}

/* ZorvMb_I_StartEngines(): every engine program that stands beside us. */
void ZorvMb_I_StartEngines(const char* directory, int bTrace) {
  char szPid[32];
  snprintf(szPid, sizeof szPid, "%lu", (unsigned long)getpid());
  setenv(ZORV_SERVER_BROKER_PID_ENV, szPid, 1);
  for (int i = 0; i < MB_ENGINE_COUNT; ++i) {
    MbEngine* pEngine = &engines.aEngines[i];
    char szPath[4096];
    int n =
        snprintf(szPath, sizeof szPath, "%s/%s", directory, pEngine->program);
    if (n <= 0 || (size_t)n >= sizeof szPath || access(szPath, X_OK) != 0) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "no %s beside the broker: not started\n",
                    pEngine->program);
      continue;
    }
    pEngine->pid = startOne(szPath, pEngine->program, bTrace);
    if (pEngine->pid > 0) {
      pEngine->state = ENGINE_RUNNING;
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s started, pid %lu\n", pEngine->program,
                    (unsigned long)pEngine->pid);
    }
  }
  engines.gateDeadlineMs = ZorvServerNowMs() + ZORV_MB_GATE_MS;
}

/* ZorvMb_I_IsEngineClass(): the classes that exist once. */
int ZorvMb_I_IsEngineClass(const char* clientClass) {
  return strcmp(clientClass, "DIAGENGINE") == 0 ||
         strcmp(clientClass, "NLSENGINE") == 0;
}

/* isConnected(): the engine's process is a client of its class. */
static int isConnected(const MbEngine* pEngine) {
  ZorvMbClient* pClient = ZorvMb_I_FindClientByPid((int32_t)pEngine->pid);
  return pClient && strcmp(pClient->szClass, pEngine->clientClass) == 0;
}

/* ZorvMb_I_StartupGateOpen(): latches open. */
int ZorvMb_I_StartupGateOpen(void) {
  if (engines.bGateOpen) return 1;
  int bAllThere = 1;
  for (int i = 0; i < MB_ENGINE_COUNT; ++i) {
    const MbEngine* pEngine = &engines.aEngines[i];
    if (pEngine->state == ENGINE_RUNNING && !isConnected(pEngine))
      bAllThere = 0;
  }
  if (bAllThere || ZorvServerNowMs() >= engines.gateDeadlineMs) {
    engines.bGateOpen = 1;
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "start-up gate open%s\n",
                  bAllThere ? "" : " (engines missing after the wait)");
  }
  return engines.bGateOpen;
}

/* reapOne(): 1 when the engine has ended (now or before). */
static int reapOne(MbEngine* pEngine, int options) {
  if (pEngine->state != ENGINE_RUNNING) return 1;
  int status = 0;
  pid_t rc = waitpid(pEngine->pid, &status, options);
  if (rc == 0) return 0;
  if (rc < 0 && errno == EINTR) return 0;
  pEngine->state = ENGINE_ENDED;
  if (rc > 0 && WIFEXITED(status)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s (pid %lu) ended with status %d\n",
                  pEngine->program, (unsigned long)pEngine->pid,
                  WEXITSTATUS(status));
  } else if (rc > 0 && WIFSIGNALED(status)) {
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s (pid %lu) ended by signal %d\n",
                  pEngine->program, (unsigned long)pEngine->pid,
                  WTERMSIG(status));
  }
  return 1;
}

/* ZorvMb_I_ReapEngines(): without waiting. */
void ZorvMb_I_ReapEngines(void) {
  for (int i = 0; i < MB_ENGINE_COUNT; ++i)
    reapOne(&engines.aEngines[i], WNOHANG);
}

/* askToStop(): "SHUTDOWN" to a connected engine; 1 when sent. */
static int askToStop(const MbEngine* pEngine) {
  ZorvMbClient* pClient = ZorvMb_I_FindClientByPid((int32_t)pEngine->pid);
  if (!pClient) return 0;
  char szTo[32];
  snprintf(szTo, sizeof szTo, "%lu", (unsigned long)pEngine->pid);
  CGenStr message;
  if (!CGenStrInit(&message)) return 0;
  int ok = ZorvServerBuildMessage(&message, szTo, NULL,
                                  ZORV_SERVER_TYPE_BROKER_COMMAND, "SHUTDOWN");
  if (ok)
    ok = ZorvMb_I_SendToClient(pClient, CGenStrC_Str(&message),
                               CGenStrSize(&message));
  CGenStrDelete(&message);
  return ok;
}

/* ZorvMb_I_StepEngineStop(): one step of the ordered stop. */
int ZorvMb_I_StepEngineStop(uint64_t nowMs) {
  if (!engines.bStopBegun) {
    engines.bStopBegun = 1;
    engines.iStopping = MB_ENGINE_COUNT - 1;
    engines.stopStep = STOP_ASK;
  }
  while (engines.iStopping >= 0) {
    MbEngine* pEngine = &engines.aEngines[engines.iStopping];
    if (reapOne(pEngine, WNOHANG)) {
      --engines.iStopping;
      engines.stopStep = STOP_ASK;
      continue;
    }
    if (engines.stopStep == STOP_ASK) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "stopping %s (pid %lu)\n",
                    pEngine->program, (unsigned long)pEngine->pid);
      if (askToStop(pEngine)) {
        engines.stopStep = STOP_WAIT_ASKED;
        engines.stopDeadlineMs = nowMs + ZORV_MB_ENGINE_STOP_MS;
        return 0;
      }
      /* Not connected: nobody would read the request. */
      engines.stopDeadlineMs = nowMs;
      engines.stopStep = STOP_WAIT_ASKED;
    }
    if (nowMs < engines.stopDeadlineMs) return 0;
    if (engines.stopStep == STOP_WAIT_ASKED) {
      ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s did not end: SIGTERM\n",
                    pEngine->program);
      kill(pEngine->pid, SIGTERM);
      engines.stopStep = STOP_WAIT_TERM;
      engines.stopDeadlineMs = nowMs + ZORV_MB_ENGINE_TERM_MS;
      return 0;
    }
    ZORV_TRACE_AT(ZORV_TRC_PROGRAM, "%s did not end: SIGKILL\n",
                  pEngine->program);
    kill(pEngine->pid, SIGKILL);
    reapOne(pEngine, 0);
  }
  return 1;
}

/* ZorvMb_I_KillEngines(): no questions asked. */
void ZorvMb_I_KillEngines(void) {
  for (int i = 0; i < MB_ENGINE_COUNT; ++i) {
    MbEngine* pEngine = &engines.aEngines[i];
    if (pEngine->state != ENGINE_RUNNING) continue;
    kill(pEngine->pid, SIGKILL);
    reapOne(pEngine, 0);
  }
}

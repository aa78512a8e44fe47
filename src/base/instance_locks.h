#pragma once
#include "platform/named_mutex.h"
#include "platform/process_handle.h"

#include <QString>

// Created by the application itself for as long as one of its windows is open.
constexpr char kMainAppMutexName[] = "Corvanta_MainApp_Running";
// Held by an apply run from before its session until right after it.
constexpr char kUpdaterMutexName[] = "Corvanta_Updater";
constexpr char kPrefetchLockPrefix[] = "Corvanta_UpdatePrefetch_";
// Product-family word shared by the apply and the prefetch side of the prefetch lock name.
constexpr char kProductFamily[] = "Pendrovia";

constexpr int kWaitPidTimeoutMs = 20000;
constexpr int kPrefetchWaitTimeoutMs = 15000;
constexpr int kAppWatchIntervalMs = 1000;

// "Corvanta_UpdatePrefetch_Pendrovia".
QString prefetchLockName();

// What the existence test of a named mutex found. Unusable: the lock's directory or file
// cannot be trusted to tell (see platform/named_mutex.h), and the run must not go on.
enum class LockTest { Absent, Exists, Unusable };

// Writes the one warning line of a lock fault, with the run's tag ("[Update]" or
// "[UpdatePrefetch]"); false, and nothing written, when there is no fault.
bool logLockFault(const corv::platform::MutexFault& fault, const char* tag);

// Existence test: opens the mutex for SYNCHRONIZE and closes it at once; takes no ownership.
// An unusable lock is logged with `tag`.
LockTest testNamedMutex(const QString& name, const char* tag);

// Takes the prefetch lock into `prefetchLock`; true when held (also when it already was).
// When it is not, `fault` (if given) says whether the lock was unusable rather than held.
bool tryAcquirePrefetchLock(corv::platform::NamedMutex& prefetchLock,
                            corv::platform::MutexFault* fault = nullptr);

// Apply side: waits up to 15 s for a prefetch that still holds its lock. False, after the
// fault's log line, when the prefetch lock is unusable.
bool waitForRunningPrefetch();

// Apply side of "--wait-pid": waits up to 20 s for the process when it can be opened.
void waitForProcessToEnd(qint64 pid);

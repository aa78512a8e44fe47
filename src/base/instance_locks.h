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

// Existence test: opens the mutex for SYNCHRONIZE and closes it at once; takes no ownership.
bool namedMutexExists(const QString& name);

// Takes the prefetch lock into `prefetchLock`; true when held (also when it already was).
bool tryAcquirePrefetchLock(corv::platform::NamedMutex& prefetchLock);

// Apply side: waits up to 15 s for a prefetch that still holds its lock.
void waitForRunningPrefetch();

// Apply side of "--wait-pid": waits up to 20 s for the process when it can be opened.
void waitForProcessToEnd(qint64 pid);

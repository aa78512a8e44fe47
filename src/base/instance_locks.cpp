#include "base/instance_locks.h"

#include <QDebug>

using corv::platform::NamedMutex;

QString prefetchLockName()
{
    return QLatin1String(kPrefetchLockPrefix) + QLatin1String(kProductFamily);
}

bool namedMutexExists(const QString& name)
{
    NamedMutex mutex = corv::platform::openNamedMutex(name.toStdString());
    const bool exists = !mutex.isNull();
    mutex.close();
    return exists;
}

bool tryAcquirePrefetchLock(NamedMutex& prefetchLock)
{
    if (!prefetchLock.isNull())
        return true;
    bool alreadyExisted = false;
    NamedMutex mutex = corv::platform::createNamedMutex(prefetchLockName().toStdString(), &alreadyExisted);
    if (mutex.isNull())
        return false;
    if (alreadyExisted) {
        mutex.close();
        return false;
    }
    prefetchLock = std::move(mutex);
    return true;
}

void waitForRunningPrefetch()
{
    NamedMutex prefetch = corv::platform::openNamedMutex(prefetchLockName().toStdString());
    if (prefetch.isNull())
        return;
    qInfo() << "[Update] dang co luot tai san chay -> cho no dung, toi da" << kPrefetchWaitTimeoutMs / 1000
            << "giay";
    // Whether the prefetch let go, ended or outlasted the wait, the apply run goes on.
    corv::platform::waitForNamedMutex(prefetch, kPrefetchWaitTimeoutMs);
    // Closed without releasing, also when the wait returned with ownership.
    prefetch.close();
}

void waitForProcessToEnd(qint64 pid)
{
    corv::platform::ProcessHandle process = corv::platform::openProcess(pid);
    if (process.isNull())
        return;
    corv::platform::waitForProcessEnd(process, kWaitPidTimeoutMs);
    process.close();
}

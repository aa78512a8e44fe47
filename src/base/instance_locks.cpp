#include "base/instance_locks.h"

#include <QDebug>

using corv::platform::NamedMutex;

QString prefetchLockName()
{
    return QLatin1String(kPrefetchLockPrefix) + QLatin1String(kProductFamily);
}

bool logLockFault(const corv::platform::MutexFault& fault, const char* tag)
{
    const char* text = nullptr;
    switch (fault.kind) {
    case corv::platform::MutexFault::LockDirectory:
        text = " thu muc khoa khong dung duoc (can thu muc rieng cua user nay, quyen 0700) -> bo qua:";
        break;
    case corv::platform::MutexFault::LockFile:
        text = " file khoa khong dung duoc (can file thuong) -> bo qua:";
        break;
    case corv::platform::MutexFault::None:
        return false;
    }
    qWarning() << (QByteArray(tag) + text).constData() << QString::fromStdString(fault.path);
    return true;
}

LockTest testNamedMutex(const QString& name, const char* tag)
{
    corv::platform::MutexFault fault;
    NamedMutex mutex = corv::platform::openNamedMutex(name.toStdString(), &fault);
    if (logLockFault(fault, tag))
        return LockTest::Unusable;
    return mutex.isNull() ? LockTest::Absent : LockTest::Exists;
}

bool tryAcquirePrefetchLock(NamedMutex& prefetchLock, corv::platform::MutexFault* fault)
{
    if (!prefetchLock.isNull())
        return true;
    bool alreadyExisted = false;
    NamedMutex mutex = corv::platform::createNamedMutex(prefetchLockName().toStdString(), &alreadyExisted, fault);
    if (mutex.isNull())
        return false;
    if (alreadyExisted) {
        mutex.close();
        return false;
    }
    prefetchLock = std::move(mutex);
    return true;
}

bool waitForRunningPrefetch()
{
    corv::platform::MutexFault fault;
    NamedMutex prefetch = corv::platform::openNamedMutex(prefetchLockName().toStdString(), &fault);
    if (logLockFault(fault, "[Update]"))
        return false;
    if (prefetch.isNull())
        return true;
    qInfo() << "[Update] dang co luot tai san chay -> cho no dung, toi da" << kPrefetchWaitTimeoutMs / 1000
            << "giay";
    // Whether the prefetch let go, ended or outlasted the wait, the apply run goes on.
    corv::platform::waitForNamedMutex(prefetch, kPrefetchWaitTimeoutMs);
    // Closed without releasing, also when the wait returned with ownership.
    prefetch.close();
    return true;
}

void waitForProcessToEnd(qint64 pid)
{
    corv::platform::ProcessHandle process = corv::platform::openProcess(pid);
    if (process.isNull())
        return;
    corv::platform::waitForProcessEnd(process, kWaitPidTimeoutMs);
    process.close();
}

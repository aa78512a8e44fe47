#include "apply/file_replacement.h"
#include "platform/file_replace.h"
#include "support/log_capture.h"
#include "support/test_files.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QtTest>

using corv::platform::FileCall;
// Injected faults: (which source, Windows error code); sources are 0 the in-place replacement
// of the staged file, 1 the move of the target, 2 the move of the staged file, 3 the move of
// the backup.
using Faults = QList<QPair<int, unsigned long>>;

namespace {

const QByteArray kMissing("<missing>");

std::string native(const QString& path)
{
    return QDir::toNativeSeparators(path).toStdString();
}

} // namespace

class FileReplacementTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { corv::platform::clearInjectedFileFailures(); }
    void replace_data();
    void replace();
};

void FileReplacementTest::replace_data()
{
    QTest::addColumn<QByteArray>("backupBefore");     // kMissing: no backup yet
    QTest::addColumn<bool>("stagedExists");
    QTest::addColumn<Faults>("injected");
    QTest::addColumn<bool>("result");
    QTest::addColumn<QByteArray>("targetAfter");
    QTest::addColumn<QByteArray>("backupAfter");
    QTest::addColumn<QByteArray>("stagedAfter");
    QTest::addColumn<QStringList>("log");

    QTest::newRow("in place") << kMissing << true << Faults{} << true << QByteArray("new") << QByteArray("old")
                              << kMissing << QStringList();
    QTest::newRow("in place over an old backup") << QByteArray("stale") << true << Faults{} << true << QByteArray("new")
                                                 << QByteArray("old") << kMissing << QStringList();
    QTest::newRow("fallback succeeds") << kMissing << true << Faults{{0, 32}} << true << QByteArray("new")
                                       << QByteArray("old") << kMissing
                                       << QStringList{"W [Update] ReplaceFile hong err= 32 -> da lui ve doi ten hai buoc, OK"};
    QTest::newRow("old backup does not block the fallback")
        << QByteArray("stale") << true << Faults{{0, 5}} << true << QByteArray("new") << QByteArray("old") << kMissing
        << QStringList{"W [Update] ReplaceFile hong err= 5 -> da lui ve doi ten hai buoc, OK"};
    QTest::newRow("file held open") << kMissing << true << Faults{{0, 32}, {1, 32}} << false << QByteArray("old")
                                    << kMissing << QByteArray("new")
                                    << QStringList{"W [Update] ReplaceFile hong err= 32 va doi ten -> .bak cung hong "
                                                   "err= 32 (32=file dang bi giu, 5=khong du quyen/AV)"};
    QTest::newRow("first rename fails, old backup untouched")
        << QByteArray("stale") << true << Faults{{0, 5}, {1, 1224}} << false << QByteArray("old") << QByteArray("stale")
        << QByteArray("new")
        << QStringList{"W [Update] ReplaceFile hong err= 5 va doi ten -> .bak cung hong err= 1224 "
                       "(32=file dang bi giu, 5=khong du quyen/AV)"};
    QTest::newRow("second rename fails, old file restored")
        << kMissing << true << Faults{{0, 5}, {2, 112}} << false << QByteArray("old") << kMissing << QByteArray("new")
        << QStringList{"W [Update] ReplaceFile hong err= 5 va ghi ban moi cung hong err= 112"};
    QTest::newRow("second rename and restore fail")
        << kMissing << true << Faults{{0, 5}, {2, 112}, {3, 32}} << false << kMissing << QByteArray("old")
        << QByteArray("new") << QStringList{"W [Update] ReplaceFile hong err= 5 va ghi ban moi cung hong err= 112"};
    // Nothing injected: the staged file is really missing, so every step meets ERROR_FILE_NOT_FOUND.
    QTest::newRow("staged file missing") << kMissing << false << Faults{} << false << QByteArray("old") << kMissing
                                         << kMissing
                                         << QStringList{"W [Update] ReplaceFile hong err= 2 va ghi ban moi cung hong err= 2"};
}

void FileReplacementTest::replace()
{
    QFETCH(QByteArray, backupBefore);
    QFETCH(bool, stagedExists);
    QFETCH(Faults, injected);
    QFETCH(bool, result);
    QFETCH(QByteArray, targetAfter);
    QFETCH(QByteArray, backupAfter);
    QFETCH(QByteArray, stagedAfter);
    QFETCH(QStringList, log);

    QTemporaryDir dir;
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral(".staging/lib")));
    QVERIFY(QDir(dir.path()).mkpath(QStringLiteral("lib")));
    const QString target = dir.filePath(QStringLiteral("lib/core.dll"));
    const QString backup = target + QStringLiteral(".bak");
    const QString staged = dir.filePath(QStringLiteral(".staging/lib/core.dll"));
    QVERIFY(writeFile(target, "old"));
    if (stagedExists)
        QVERIFY(writeFile(staged, "new"));
    if (backupBefore != kMissing)
        QVERIFY(writeFile(backup, backupBefore));
    const QString sources[] = {staged, target, staged, backup};
    for (const auto& fault : injected)
        corv::platform::injectFileFailure(fault.first == 0 ? FileCall::ReplaceFile : FileCall::MoveFile,
                                          native(sources[fault.first]), fault.second);

    LogCapture capture;
    QCOMPARE(replaceInstalledFile(staged, target, backup), result);
    QCOMPARE(capture.lines(), log);
    QCOMPARE(readFile(target, kMissing), targetAfter);
    QCOMPARE(readFile(backup, kMissing), backupAfter);
    QCOMPARE(readFile(staged, kMissing), stagedAfter);
}

QTEST_GUILESS_MAIN(FileReplacementTest)
#include "tst_file_replacement.moc"

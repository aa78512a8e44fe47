#pragma once
#include <QString>
#include <QtGlobal>

// updater.log beside the executable; it is never truncated, rotated or deleted.
constexpr qint64 kLogSizeCap = 262144;

// Routes every Qt message into installationDir()/updater.log, chained before the previous
// handler. A second call changes nothing.
void installFileLog(const QString& modeTag);
// Restores the previous handler and closes the file. Safe without a prior install.
void shutdownFileLog();
void fileLogHandler(QtMsgType type, const QMessageLogContext& context, const QString& text);

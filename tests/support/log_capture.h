#pragma once
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Records every message written while it lives, as "<level letter> <text>" ("W [Update] ...",
// "I [Update] ..."), so tests compare whole log lines exactly and notice extra ones.
class LogCapture {
public:
    LogCapture() : previous(qInstallMessageHandler(&LogCapture::handle)) { current = this; }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        current = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    QStringList lines() const { return recorded; }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        static const char* const letters[] = {"D", "W", "C", "F", "I"};
        if (current)
            current->recorded.append(QLatin1String(letters[type]) + QLatin1Char(' ') + text);
    }

    static inline LogCapture* current = nullptr;
    QtMessageHandler previous;
    QStringList recorded;
};

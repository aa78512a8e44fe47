#pragma once
#include <QString>
#include <QStringList>
#include <QtGlobal>

// Records every message written while it lives, as "<level letter> <text>" ("W [Update] ...",
// "I [Update] ..."), so tests compare whole log lines exactly and notice extra ones.
class LogCapture {
public:
    LogCapture() : previous(qInstallMessageHandler(&LogCapture::handle)) { current() = this; }
    ~LogCapture()
    {
        qInstallMessageHandler(previous);
        current() = nullptr;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QStringList lines() const { return recorded; }
    // The texts of the warnings alone, without the level letter.
    QStringList warnings() const
    {
        QStringList texts;
        for (const QString& line : recorded) {
            if (line.startsWith(QLatin1String("W ")))
                texts.append(line.mid(2));
        }
        return texts;
    }
    void clear() { recorded.clear(); }

private:
    static LogCapture*& current()
    {
        static LogCapture* capture = nullptr;
        return capture;
    }
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        static const char* const letters[] = {"D", "W", "C", "F", "I"};
        if (LogCapture* capture = current())
            capture->recorded.append(QLatin1String(letters[type]) + QLatin1Char(' ') + text);
    }

    QtMessageHandler previous;
    QStringList recorded;
};

// ui_screenshots OUTDIR
// Shows the real status window with each status text of an apply run and every message box
// of the updater on the current display, grabs each from the screen and saves it as a PNG in
// OUTDIR. Meant for a virtual X display (xcb platform), so fonts render as on a desktop.
// Exit code 0 when every picture was saved and shows more than one colour.
#include "app/outcome_message.h"
#include "ui/update_splash.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QImage>
#include <QAbstractButton>
#include <QMessageBox>
#include <QPixmap>
#include <QScreen>
#include <QTimer>
#include <QWindow>

#include <cstdio>
#include <functional>

namespace {

QString outDir;
int failures = 0;

// Lets the window reach the screen and paint; there is no other signal for "pixels are there".
void settle(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

bool hasSeveralColours(const QImage& image)
{
    const QRgb first = image.pixel(0, 0);
    for (int y = 0; y < image.height(); ++y)
        for (int x = 0; x < image.width(); ++x)
            if (image.pixel(x, y) != first)
                return true;
    return false;
}

// Grabs what the screen shows where the widget is, frame included.
void save(QWidget& widget, const QString& fileName)
{
    const QRect area = widget.frameGeometry();
    const QPixmap shot =
        QGuiApplication::primaryScreen()->grabWindow(0, area.x(), area.y(), area.width(), area.height());
    const QString path = QDir(outDir).filePath(fileName);
    if (shot.isNull() || !hasSeveralColours(shot.toImage()) || !shot.save(path, "PNG")) {
        std::fprintf(stderr, "failed: %s\n", qPrintable(path));
        ++failures;
        return;
    }
    std::printf("%s %dx%d\n", qPrintable(path), shot.width(), shot.height());
}

void shootStatus(const QString& fileName, const QString& text)
{
    corv::UpdateSplash splash;
    splash.showStatus(text);
    settle(400);
    save(splash, fileName);
    splash.hide();
}

// The box blocks in its own modal loop: a timer inside that loop waits until it is on screen,
// grabs it and presses Ok.
void shootBox(const QString& fileName, const std::function<void()>& show)
{
    QTimer poll;
    QElapsedTimer sinceExposed;
    bool saved = false;
    poll.setInterval(50);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || !box->windowHandle() || !box->windowHandle()->isExposed())
            return;
        if (!sinceExposed.isValid())
            sinceExposed.start();
        if (sinceExposed.elapsed() < 400)
            return;
        poll.stop();
        save(*box, fileName);
        saved = true;
        box->button(QMessageBox::Ok)->click();
    });
    poll.start();
    show();
    if (!saved) {
        std::fprintf(stderr, "no box appeared for %s\n", qPrintable(fileName));
        ++failures;
    }
}

} // namespace

int main(int argc, char** argv)
{
    QApplication app(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: ui_screenshots OUTDIR\n");
        return 2;
    }
    outDir = QString::fromLocal8Bit(argv[1]);
    if (!QDir().mkpath(outDir)) {
        std::fprintf(stderr, "cannot create %s\n", argv[1]);
        return 2;
    }

    shootStatus(QStringLiteral("status-checking.png"), QString::fromUtf8("Đang kiểm tra cập nhật…"));
    shootStatus(QStringLiteral("status-downloading.png"),
                QString::fromUtf8("Đang tải bản cập nhật (%1 tệp)…").arg(3));
    shootStatus(QStringLiteral("status-applying.png"), QString::fromUtf8("Đang áp bản cập nhật…"));
    shootStatus(QStringLiteral("status-done.png"), QString::fromUtf8("Cập nhật hoàn tất."));

    const struct {
        const char* fileName;
        UpdateOutcome outcome;
    } outcomes[] = {
        {"outcome-0-no-config.png", NoConfig},
        {"outcome-1-manifest-rejected.png", ManifestRejected},
        {"outcome-2-up-to-date.png", UpToDate},
        {"outcome-3-updated.png", Updated},
        {"outcome-4-failed.png", Failed},
    };
    for (const auto& o : outcomes) {
        const UpdateOutcome outcome = o.outcome;
        shootBox(QString::fromLatin1(o.fileName), [outcome] { showOutcomeMessage(outcome); });
    }
    shootBox(QStringLiteral("refusal-app-still-running.png"), [] { showAppStillRunningMessage(); });
    shootBox(QStringLiteral("refusal-another-updater.png"), [] { showAnotherUpdaterMessage(); });

    return failures == 0 ? 0 : 1;
}

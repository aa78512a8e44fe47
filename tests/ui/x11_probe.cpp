// Looks at other processes' windows on the X display in DISPLAY, for the tests that run the
// real updater on a virtual X server:
//   x11_probe compare-box WINDOW warning|information TITLE TEXT [FILE]
//       grabs WINDOW, then shows its own message box of that kind with TITLE, TEXT and one Ok
//       button on the same display and grabs it too. Exit code 0 when the two pictures are
//       identical pixel for pixel, 1 when they differ (the other window's picture then goes to
//       FILE, its own beside it as FILE.expected.png), 2 on bad usage.
// The box of this program is rendered with the same fonts, style and screen as the updater's,
// so any difference in icon, text or buttons shows up as different pixels.
#include <QAbstractButton>
#include <QApplication>
#include <QEventLoop>
#include <QImage>
#include <QMessageBox>
#include <QPixmap>
#include <QScreen>
#include <QTimer>
#include <QWindow>

#include <cstdio>
#include <cstring>

namespace {

QImage grab(WId window)
{
    return QGuiApplication::primaryScreen()->grabWindow(window).toImage();
}

void wait(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

// A window that has just been mapped may not be painted yet: grab until two pictures taken
// 200 ms apart agree (at most 10 s).
QImage grabSettled(WId window)
{
    QImage previous = grab(window);
    for (int i = 0; i < 50; ++i) {
        wait(200);
        const QImage current = grab(window);
        if (!current.isNull() && current == previous)
            return current;
        previous = current;
    }
    return QImage();
}

// Shows the reference box and grabs it once it is on screen and painted.
QImage grabReferenceBox(QMessageBox::Icon icon, const QString& title, const QString& text)
{
    QImage shot;
    QTimer poll;
    poll.setSingleShot(true);
    poll.setInterval(50);
    QObject::connect(&poll, &QTimer::timeout, [&] {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || !box->windowHandle() || !box->windowHandle()->isExposed()) {
            poll.start();
            return;
        }
        shot = grabSettled(box->winId());
        box->button(QMessageBox::Ok)->click();
    });
    poll.start();
    if (icon == QMessageBox::Warning)
        QMessageBox::warning(nullptr, title, text, QMessageBox::Ok, QMessageBox::NoButton);
    else
        QMessageBox::information(nullptr, title, text, QMessageBox::Ok, QMessageBox::NoButton);
    return shot;
}

} // namespace

int main(int argc, char** argv)
{
    qputenv("QT_QPA_PLATFORM", "xcb");
    qputenv("QT_XCB_GL_INTEGRATION", "none"); // no OpenGL driver, like the updater
    QApplication app(argc, argv);
    const QStringList args = QApplication::arguments().mid(1);

    bool ok = false;
    const WId window = args.value(1).toULongLong(&ok);
    if ((args.size() == 5 || args.size() == 6) && args[0] == QLatin1String("compare-box") && ok
        && (args[2] == QLatin1String("warning") || args[2] == QLatin1String("information"))) {
        const QImage actual = grabSettled(window);
        if (actual.isNull())
            return 1;
        const QImage expected = grabReferenceBox(
            args[2] == QLatin1String("warning") ? QMessageBox::Warning : QMessageBox::Information,
            args[3], args[4]);
        if (!expected.isNull() && actual == expected)
            return 0;
        if (args.size() == 6) {
            actual.save(args[5], "PNG");
            expected.save(args[5] + QLatin1String(".expected.png"), "PNG");
        }
        std::fprintf(stderr, "window %dx%d, expected box %dx%d: pictures differ\n", actual.width(),
                     actual.height(), expected.width(), expected.height());
        return 1;
    }
    std::fprintf(stderr, "usage: x11_probe compare-box WINDOW warning|information TITLE TEXT [FILE]\n");
    return 2;
}

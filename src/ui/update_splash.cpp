#include "ui/update_splash.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QLabel>
#include <QScreen>
#include <QVBoxLayout>

namespace corv {

namespace {
constexpr int kWidth = 360;
constexpr int kHeight = 90;
constexpr char kWindowStyle[] =
    "QWidget{background:#1f2430;border:1px solid #2ea043;border-radius:10px;}"
    "QLabel{color:#ffffff;font-size:13px;}";
constexpr char kTitleStyle[] = "font-weight:700;font-size:15px;";
} // namespace

UpdateSplash::UpdateSplash()
    : QWidget(nullptr, Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint)
{
    setFixedSize(kWidth, kHeight);
    setStyleSheet(QString::fromLatin1(kWindowStyle));

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 16, 20, 16);

    auto* title = new QLabel(QStringLiteral("Corvanta"), this);
    title->setStyleSheet(QString::fromLatin1(kTitleStyle));
    layout->addWidget(title);

    statusLabel = new QLabel(QString::fromUtf8("Đang khởi động…"), this);
    statusLabel->setWordWrap(true);
    layout->addWidget(statusLabel);
}

UpdateSplash::~UpdateSplash() = default;

void UpdateSplash::showStatus(const QString& text)
{
    if (statusLabel)
        statusLabel->setText(text);
    // Centre only when (re)appearing: a visible window the user may have dragged stays put.
    if (!isVisible()) {
        if (QScreen* screen = QGuiApplication::primaryScreen())
            move(screen->geometry().center() - rect().center());
        show();
    }
    raise();
    // The session works synchronously on this thread; let the window paint now.
    QCoreApplication::processEvents();
}

} // namespace corv

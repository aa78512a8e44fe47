// The status window: fixed look, hidden until the first status text, centred when it appears,
// never moved while visible, raised on every text, repainting while its caller works.
#include "ui/update_splash.h"

#include "glyph_coverage.h"

#include <QApplication>
#include <QLabel>
#include <QPointer>
#include <QScreen>
#include <QTest>
#include <QVBoxLayout>

using corv::UpdateSplash;

namespace {

// Counts the z-order changes that raise() announces to the widget.
class RaiseCounter : public QObject {
public:
    int count = 0;
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::ZOrderChange)
            ++count;
        return false;
    }
};

// Where a 360x90 window centred on the primary screen must land; written out from the screen
// geometry so that an off-by-one in the window's own arithmetic shows up.
QPoint expectedCentredPos()
{
    const QRect g = QGuiApplication::primaryScreen()->geometry();
    return {g.x() + (g.width() - 1) / 2 - (360 - 1) / 2, g.y() + (g.height() - 1) / 2 - (90 - 1) / 2};
}

QLabel* rowLabel(UpdateSplash& splash, int row)
{
    auto* layout = qobject_cast<QVBoxLayout*>(splash.layout());
    if (!layout || row >= layout->count())
        return nullptr;
    return qobject_cast<QLabel*>(layout->itemAt(row)->widget());
}

} // namespace

class TestUpdateSplash : public QObject {
    Q_OBJECT

private slots:
    void hasTheFixedLook();
    void hasNoMetaObjectOfItsOwn();
    void isHiddenUntilTheFirstStatus();
    void firstStatusShowsAndCentres();
    void statusTexts_data();
    void statusTexts();
    void visibleWindowIsNeverMovedAgain();
    void hiddenWindowIsCentredAnew();
    void everyStatusRaises();
    void pendingEventsRunInsideShowStatus();
    void longTextWrapsInsideTheFixedSize();
    void labelsDieWithTheWindow();
    void glyphCheckSpotsMissingCharacters();
    void textsCanBeDrawn_data();
    void textsCanBeDrawn();
};

void TestUpdateSplash::hasTheFixedLook()
{
    UpdateSplash splash;

    QVERIFY(splash.isWindow());
    QCOMPARE(splash.parentWidget(), nullptr);
    QCOMPARE(int(splash.windowFlags()), 0x4080B);
    QCOMPARE(splash.windowFlags(),
             Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint);

    QCOMPARE(splash.size(), QSize(360, 90));
    QCOMPARE(splash.minimumSize(), QSize(360, 90));
    QCOMPARE(splash.maximumSize(), QSize(360, 90));

    QCOMPARE(splash.styleSheet(),
             QStringLiteral("QWidget{background:#1f2430;border:1px solid #2ea043;"
                            "border-radius:10px;}QLabel{color:#ffffff;font-size:13px;}"));

    auto* layout = qobject_cast<QVBoxLayout*>(splash.layout());
    QVERIFY(layout);
    QCOMPARE(layout->contentsMargins(), QMargins(20, 16, 20, 16));
    QCOMPARE(layout->count(), 2);
    for (int row = 0; row < 2; ++row) {
        QCOMPARE(layout->stretch(row), 0);
        QCOMPARE(int(layout->itemAt(row)->alignment()), 0);
    }
    // Spacing is whatever the framework gives a vertical layout under this style sheet.
    QWidget reference;
    reference.setStyleSheet(splash.styleSheet());
    auto* referenceLayout = new QVBoxLayout(&reference);
    QCOMPARE(layout->spacing(), referenceLayout->spacing());

    QLabel* title = rowLabel(splash, 0);
    QVERIFY(title);
    QCOMPARE(title->text(), QStringLiteral("Corvanta"));
    QCOMPARE(title->styleSheet(), QStringLiteral("font-weight:700;font-size:15px;"));

    QLabel* status = rowLabel(splash, 1);
    QVERIFY(status);
    QCOMPARE(status->text(), QString::fromUtf8("Đang khởi động\u2026"));
    QVERIFY(status->text().endsWith(QChar(0x2026)));
    QVERIFY(status->wordWrap());
    QVERIFY(status->styleSheet().isEmpty());

    // Only the two labels: no buttons, no progress bar.
    QCOMPARE(splash.findChildren<QWidget*>().size(), 2);
}

void TestUpdateSplash::hasNoMetaObjectOfItsOwn()
{
    UpdateSplash splash;
    QCOMPARE(splash.metaObject(), &QWidget::staticMetaObject);
}

void TestUpdateSplash::isHiddenUntilTheFirstStatus()
{
    UpdateSplash splash;
    QCoreApplication::processEvents();
    QVERIFY(!splash.isVisible());
    for (QWindow* window : QGuiApplication::topLevelWindows())
        QVERIFY2(!window->isVisible(), "a window is on screen before any status text");
}

void TestUpdateSplash::firstStatusShowsAndCentres()
{
    UpdateSplash splash;
    const QString text = QString::fromUtf8("Đang kiểm tra cập nhật…");
    splash.showStatus(text);

    QVERIFY(splash.isVisible());
    QCOMPARE(rowLabel(splash, 1)->text(), text);
    QCOMPARE(splash.pos(), expectedCentredPos());
    QCOMPARE(splash.size(), QSize(360, 90));

    // Centred means equal room on both sides, give or take the odd pixel.
    const QRect screen = QGuiApplication::primaryScreen()->geometry();
    const QRect frame = splash.frameGeometry();
    QVERIFY(qAbs((frame.left() - screen.left()) - (screen.right() - frame.right())) <= 1);
    QVERIFY(qAbs((frame.top() - screen.top()) - (screen.bottom() - frame.bottom())) <= 1);
}

void TestUpdateSplash::statusTexts_data()
{
    QTest::addColumn<QString>("text");
    QTest::newRow("checking") << QString::fromUtf8("Đang kiểm tra cập nhật…");
    QTest::newRow("downloading") << QString::fromUtf8("Đang tải bản cập nhật (%1 tệp)…").arg(3);
    QTest::newRow("applying") << QString::fromUtf8("Đang áp bản cập nhật…");
    QTest::newRow("done") << QString::fromUtf8("Cập nhật hoàn tất.");
    QTest::newRow("empty") << QString();
}

void TestUpdateSplash::statusTexts()
{
    QFETCH(QString, text);
    UpdateSplash splash;
    splash.showStatus(QStringLiteral("first"));
    splash.showStatus(text);
    QCOMPARE(rowLabel(splash, 1)->text(), text);
    QCOMPARE(rowLabel(splash, 0)->text(), QStringLiteral("Corvanta"));
    QVERIFY(splash.isVisible());
    QCOMPARE(splash.size(), QSize(360, 90));
}

void TestUpdateSplash::visibleWindowIsNeverMovedAgain()
{
    UpdateSplash splash;
    splash.showStatus(QString::fromUtf8("Đang kiểm tra cập nhật…"));
    QCOMPARE(splash.pos(), expectedCentredPos());

    // The user dragged it away: further texts leave it where it is.
    const QPoint elsewhere(13, 27);
    splash.move(elsewhere);
    QCOMPARE(splash.pos(), elsewhere);
    splash.showStatus(QString::fromUtf8("Đang tải bản cập nhật (2 tệp)…"));
    QCOMPARE(splash.pos(), elsewhere);
    splash.showStatus(QString::fromUtf8("Đang áp bản cập nhật…"));
    QCOMPARE(splash.pos(), elsewhere);
    QVERIFY(splash.isVisible());
}

void TestUpdateSplash::hiddenWindowIsCentredAnew()
{
    UpdateSplash splash;
    splash.showStatus(QStringLiteral("one"));
    splash.move(5, 7);
    splash.hide();
    QVERIFY(!splash.isVisible());

    splash.showStatus(QStringLiteral("two"));
    QVERIFY(splash.isVisible());
    QCOMPARE(splash.pos(), expectedCentredPos());
    QCOMPARE(rowLabel(splash, 1)->text(), QStringLiteral("two"));
}

void TestUpdateSplash::everyStatusRaises()
{
    UpdateSplash splash;
    RaiseCounter counter;
    splash.installEventFilter(&counter);

    splash.showStatus(QStringLiteral("one"));
    const int afterFirst = counter.count;
    QVERIFY(afterFirst >= 1);

    // Already visible: no new show, but it is still brought to the front.
    splash.showStatus(QStringLiteral("two"));
    QVERIFY(counter.count > afterFirst);
    const int afterSecond = counter.count;
    splash.showStatus(QStringLiteral("three"));
    QVERIFY(counter.count > afterSecond);
}

void TestUpdateSplash::pendingEventsRunInsideShowStatus()
{
    UpdateSplash splash;
    for (int round = 0; round < 2; ++round) {
        bool delivered = false;
        QMetaObject::invokeMethod(
            &splash, [&delivered] { delivered = true; }, Qt::QueuedConnection);
        QVERIFY(!delivered);
        // The caller never returns to an event loop between texts; showStatus must run it.
        splash.showStatus(QStringLiteral("text %1").arg(round));
        QVERIFY2(delivered, qPrintable(QStringLiteral("round %1").arg(round)));
    }
}

void TestUpdateSplash::longTextWrapsInsideTheFixedSize()
{
    UpdateSplash splash;
    QString text;
    for (int i = 0; i < 6; ++i)
        text += QString::fromUtf8("Đang tải bản cập nhật (12345 tệp)… ");
    text = text.trimmed();
    splash.showStatus(QString::fromUtf8("Đang kiểm tra cập nhật…"));
    splash.showStatus(text);
    QCoreApplication::processEvents();

    QCOMPARE(splash.size(), QSize(360, 90));
    QCOMPARE(splash.pos(), expectedCentredPos());

    QLabel* status = rowLabel(splash, 1);
    QCOMPARE(status->text(), text);
    QVERIFY(splash.rect().contains(status->geometry()));
    QVERIFY(status->geometry().right() <= 360 - 20);
    // Laid out at the width the window leaves it, the text needs several lines.
    const int oneLine = status->fontMetrics().lineSpacing();
    QVERIFY(status->fontMetrics().horizontalAdvance(text) > status->width());
    QVERIFY2(status->heightForWidth(status->width()) >= 2 * oneLine,
             "the long text does not wrap");
}

void TestUpdateSplash::labelsDieWithTheWindow()
{
    QPointer<QLabel> title;
    QPointer<QLabel> status;
    {
        UpdateSplash splash;
        title = rowLabel(splash, 0);
        status = rowLabel(splash, 1);
        QVERIFY(title && status);
        QCOMPARE(title->parentWidget(), &splash);
        QCOMPARE(status->parentWidget(), &splash);
    }
    QVERIFY(title.isNull());
    QVERIFY(status.isNull());
}

void TestUpdateSplash::glyphCheckSpotsMissingCharacters()
{
    // U+0378 is unassigned: no font can have drawn it.
    const QString unassigned = QString::fromUcs4(U"a\u0378b");
    QCOMPARE(missingGlyphs(unassigned, QFont()), QString::fromUcs4(U"\u0378"));
    QCOMPARE(missingGlyphs(QStringLiteral("ab"), QFont()), QString());
}

void TestUpdateSplash::textsCanBeDrawn_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QString>("text");
    QTest::newRow("title") << 0 << QStringLiteral("Corvanta");
    QTest::newRow("starting") << 1 << QString::fromUtf8("Đang khởi động…");
    QTest::newRow("checking") << 1 << QString::fromUtf8("Đang kiểm tra cập nhật…");
    QTest::newRow("downloading") << 1 << QString::fromUtf8("Đang tải bản cập nhật (%1 tệp)…").arg(1234567890);
    QTest::newRow("applying") << 1 << QString::fromUtf8("Đang áp bản cập nhật…");
    QTest::newRow("done") << 1 << QString::fromUtf8("Cập nhật hoàn tất.");
}

void TestUpdateSplash::textsCanBeDrawn()
{
    QFETCH(int, row);
    QFETCH(QString, text);
    UpdateSplash splash;
    splash.ensurePolished();  // the style sheets set the labels' fonts
    QLabel* label = rowLabel(splash, row);
    QVERIFY(label);
    const QString missing = missingGlyphs(text, label->font());
    QVERIFY2(missing.isEmpty(),
             qPrintable(QStringLiteral("no installed font draws \"%1\" (install fonts-dejavu-core)").arg(missing)));
}

QTEST_MAIN(TestUpdateSplash)
#include "tst_update_splash.moc"

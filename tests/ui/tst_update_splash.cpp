// The status window: its fixed look, its texts, where it appears, and that its texts can be
// drawn. The real updater's runs on X show when it is mapped and that it is centred there
// (tests/blackbox); these rows show the rest.
#include "ui/update_splash.h"

#include <QApplication>
#include <QGlyphRun>
#include <QLabel>
#include <QScreen>
#include <QTest>
#include <QTextLayout>
#include <QVBoxLayout>

#include <algorithm>

using corv::UpdateSplash;

namespace {

// Counts the z-order changes that raise() announces to the widget.
class RaiseCounter : public QObject {
public:
    int count = 0;
    bool eventFilter(QObject*, QEvent* event) override
    {
        count += event->type() == QEvent::ZOrderChange;
        return false;
    }
};

// Where a 360x90 window centred on the primary screen lands, written out from the screen's
// geometry so that an off-by-one in the window's own arithmetic shows.
QPoint centred()
{
    const QRect g = QGuiApplication::primaryScreen()->geometry();
    return {g.x() + (g.width() - 1) / 2 - (360 - 1) / 2, g.y() + (g.height() - 1) / 2 - (90 - 1) / 2};
}

QLabel* label(UpdateSplash& splash, int row)
{
    return qobject_cast<QLabel*>(splash.layout()->itemAt(row)->widget());
}

// The characters of `text` that no installed font draws, each once. Laid out as a label lays
// it out (font fallback included), a character without a glyph gets glyph 0, the empty box.
// The Vietnamese texts need a font with Vietnamese coverage (Debian: fonts-dejavu-core).
QString missingGlyphs(const QString& text, const QFont& font)
{
    QString missing;
    for (const uint code : text.toUcs4()) {
        const QString one = QString::fromUcs4(&code, 1);
        QTextLayout layout(one, font);
        layout.beginLayout();
        layout.createLine();
        layout.endLayout();
        const QList<QGlyphRun> runs = layout.glyphRuns();
        if (code != ' ' && !missing.contains(one)
            && std::none_of(runs.begin(), runs.end(), [](const QGlyphRun& run) { return run.glyphIndexes().value(0); }))
            missing += one;
    }
    return missing;
}

} // namespace

class TestUpdateSplash : public QObject {
    Q_OBJECT
private slots:
    void look();
    void showStatus_data();
    void showStatus();
    void glyphs_data();
    void glyphs();
};

void TestUpdateSplash::look()
{
    UpdateSplash splash;
    QCOMPARE(int(splash.windowFlags()), 0x4080B);
    QCOMPARE(splash.styleSheet(), "QWidget{background:#1f2430;border:1px solid #2ea043;border-radius:10px;}"
                                  "QLabel{color:#ffffff;font-size:13px;}");
    QCOMPARE(splash.layout()->contentsMargins(), QMargins(20, 16, 20, 16));
    QCOMPARE(label(splash, 0)->text(), "Corvanta");
    QCOMPARE(label(splash, 0)->styleSheet(), "font-weight:700;font-size:15px;");
    QCOMPARE(label(splash, 1)->text(), QString::fromUtf8("Đang khởi động\u2026"));
    QVERIFY(label(splash, 1)->wordWrap());
}

void TestUpdateSplash::showStatus_data()
{
    QTest::addColumn<QString>("steps");  // "show TEXT", "move" (the user drags it), "hide"; separated by "|"
    QTest::addColumn<bool>("movedAway"); // false: centred on the screen at the end
    QTest::newRow("a visible window is never moved again") << "show a|move|show b|show c" << true;
    QTest::newRow("a hidden window is centred anew") << "show a|move|hide|show b" << false;
}

void TestUpdateSplash::showStatus()
{
    QFETCH(QString, steps);
    QFETCH(bool, movedAway);
    UpdateSplash splash;
    RaiseCounter raises;
    splash.installEventFilter(&raises);
    QString text;
    for (const QString& step : steps.split('|')) {
        if (step == "move") {
            splash.move(13, 27);
        } else if (step == "hide") {
            splash.hide();
        } else {
            text = step.mid(5);
            const int raisedBefore = raises.count;
            bool delivered = false;
            QMetaObject::invokeMethod(&splash, [&delivered] { delivered = true; }, Qt::QueuedConnection);
            splash.showStatus(text);
            // The driver never returns to an event loop between texts: showStatus runs it.
            QVERIFY(delivered && splash.isVisible() && raises.count > raisedBefore);
        }
    }
    QCOMPARE(label(splash, 1)->text(), text);
    QCOMPARE(splash.pos(), movedAway ? QPoint(13, 27) : centred());
    QCOMPARE(splash.size(), QSize(360, 90));
}

void TestUpdateSplash::glyphs_data()
{
    QTest::addColumn<int>("row");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("missing");
    QTest::newRow("title") << 0 << "Corvanta" << "";
    QTest::newRow("status texts") << 1 << QString::fromUtf8("Đang khởi động… Đang kiểm tra cập nhật… Đang tải bản cập nhật "
                                                            "(1234567890 tệp)… Đang áp bản cập nhật… Cập nhật hoàn tất.") << "";
    // U+0378 is unassigned: no font draws it, and the check must say so.
    QTest::newRow("unassigned character") << 1 << QString::fromUcs4(U"a\u0378b") << QString::fromUcs4(U"\u0378");
}

void TestUpdateSplash::glyphs()
{
    QFETCH(int, row);
    QFETCH(QString, text);
    QFETCH(QString, missing);
    UpdateSplash splash;
    splash.ensurePolished();  // the style sheets set the labels' fonts
    QCOMPARE(missingGlyphs(text, label(splash, row)->font()), missing);
}

QTEST_MAIN(TestUpdateSplash)
#include "tst_update_splash.moc"

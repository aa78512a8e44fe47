// The message boxes of an apply run: kind, title, exact text and the single Ok button of each,
// found as the active modal box while the call blocks; unknown outcomes show nothing.
#include "app/outcome_message.h"

#include "glyph_coverage.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>
#include <QTimer>

#include <functional>

namespace {

// What a box looked like when it was found on screen.
struct SeenBox {
    int count = 0;  // distinct boxes found
    QMessageBox::Icon icon = QMessageBox::NoIcon;
    QString title;
    QString text;
    QString informativeText;
    QMessageBox::StandardButtons standardButtons;
    int buttonCount = 0;
    bool defaultIsOk = false;
    bool hasParent = true;
    bool modal = false;
    bool visible = false;
    QString missingGlyphs;  // characters of title and text that no installed font draws
};

// Polls for the active modal box, records it and presses its Ok button. A repeating timer
// runs inside the box's own modal loop, so the call under test returns only once Ok is pressed.
class BoxCloser : public QObject {
public:
    SeenBox seen;

    BoxCloser()
    {
        timer.setInterval(20);
        connect(&timer, &QTimer::timeout, this, [this] { poll(); });
        timer.start();
    }

private:
    void poll()
    {
        auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
        if (!box || box == last)
            return;
        last = box;
        ++seen.count;
        seen.icon = box->icon();
        seen.title = box->windowTitle();
        seen.text = box->text();
        seen.informativeText = box->informativeText();
        seen.standardButtons = box->standardButtons();
        seen.buttonCount = box->buttons().size();
        seen.defaultIsOk = box->defaultButton() && box->defaultButton() == box->button(QMessageBox::Ok);
        seen.hasParent = box->parentWidget() != nullptr;
        seen.modal = box->isModal();
        seen.visible = box->isVisible();
        seen.missingGlyphs = missingGlyphs(seen.title + seen.text, box->font());
        if (QAbstractButton* ok = box->button(QMessageBox::Ok))
            ok->click();
        else
            box->reject();
    }

    QTimer timer;
    QMessageBox* last = nullptr;
};

// The title of every box, spelled with escapes so that the em dash cannot hide as a hyphen.
const QString kTitle = QString::fromUtf8("Corvanta \u2014 C\u1eadp nh\u1eadt");

} // namespace

class TestOutcomeMessage : public QObject {
    Q_OBJECT

private slots:
    void boxes_data();
    void boxes();
    void unknownOutcomeShowsNothing_data();
    void unknownOutcomeShowsNothing();
};

void TestOutcomeMessage::boxes_data()
{
    QTest::addColumn<QString>("call");   // "outcome", "appStillRunning" or "anotherUpdater"
    QTest::addColumn<int>("outcome");
    QTest::addColumn<int>("icon");
    QTest::addColumn<QString>("text");

    const int warning = QMessageBox::Warning;
    const int information = QMessageBox::Information;
    QTest::newRow("0 NoConfig") << "outcome" << 0 << warning
        << QString::fromUtf8("Bản này chưa cấu hình kênh cập nhật.\n\n"
                             "Mở lại Corvanta để tiếp tục dùng bản hiện tại.");
    QTest::newRow("1 ManifestRejected") << "outcome" << 1 << warning
        << QString::fromUtf8("Không tải được thông tin cập nhật.\nKiểm tra kết nối mạng rồi thử lại.\n\n"
                             "Mở lại Corvanta để tiếp tục dùng bản hiện tại.");
    QTest::newRow("2 UpToDate") << "outcome" << 2 << information
        << QString::fromUtf8("Bạn đang dùng phiên bản mới nhất \u2014 không có gì để cập nhật.\n\n"
                             "Bạn có thể mở lại Corvanta để tiếp tục sử dụng.");
    QTest::newRow("3 Updated") << "outcome" << 3 << information
        << QString::fromUtf8("Cập nhật thành công!\n\n"
                             "Bạn có thể mở lại Corvanta để tiếp tục sử dụng.");
    QTest::newRow("4 Failed") << "outcome" << 4 << warning
        << QString::fromUtf8("Cập nhật thất bại \u2014 đã khôi phục bản cũ.\n\n"
                             "Mở lại Corvanta để tiếp tục dùng bản hiện tại, hoặc thử cập nhật lại sau.");
    QTest::newRow("application still running") << "appStillRunning" << -1 << warning
        << QString::fromUtf8("Không cập nhật được vì vẫn còn cửa sổ Corvanta đang mở.\n\n"
                             "Đóng hết Corvanta rồi thử cập nhật lại.");
    QTest::newRow("another updater") << "anotherUpdater" << -1 << information
        << QString::fromUtf8("Một tiến trình cập nhật khác đang chạy.\n\n"
                             "Đợi nó xong rồi mở lại Corvanta.");
}

void TestOutcomeMessage::boxes()
{
    QFETCH(QString, call);
    QFETCH(int, outcome);
    QFETCH(int, icon);
    QFETCH(QString, text);

    std::function<void()> show;
    if (call == QLatin1String("outcome"))
        show = [outcome] { showOutcomeMessage(static_cast<UpdateOutcome>(outcome)); };
    else if (call == QLatin1String("appStillRunning"))
        show = [] { showAppStillRunningMessage(); };
    else
        show = [] { showAnotherUpdaterMessage(); };

    BoxCloser closer;
    show();  // blocks until the closer presses Ok

    const SeenBox& seen = closer.seen;
    QCOMPARE(seen.count, 1);
    QVERIFY(seen.visible);
    QVERIFY(seen.modal);
    QVERIFY(!seen.hasParent);
    QCOMPARE(int(seen.icon), icon);
    QCOMPARE(seen.title, kTitle);
    QCOMPARE(seen.text, text);
    QVERIFY(seen.informativeText.isEmpty());
    QCOMPARE(seen.standardButtons, QMessageBox::StandardButtons(QMessageBox::Ok));
    QCOMPARE(seen.buttonCount, 1);
    // No default is asked for; the framework then makes the only (accepting) button the
    // default, so Return closes the box.
    QVERIFY(seen.defaultIsOk);
    QVERIFY2(seen.missingGlyphs.isEmpty(),
             qPrintable(QStringLiteral("no installed font draws \"%1\" (install fonts-dejavu-core)")
                            .arg(seen.missingGlyphs)));

    // The box is gone once the call has returned.
    QCOMPARE(QApplication::activeModalWidget(), nullptr);
    for (QWidget* w : QApplication::topLevelWidgets())
        QVERIFY(!qobject_cast<QMessageBox*>(w) || !w->isVisible());
}

void TestOutcomeMessage::unknownOutcomeShowsNothing_data()
{
    QTest::addColumn<int>("outcome");
    QTest::newRow("5") << 5;
    QTest::newRow("-1") << -1;
    QTest::newRow("1000") << 1000;
}

void TestOutcomeMessage::unknownOutcomeShowsNothing()
{
    QFETCH(int, outcome);

    // A zero-delay probe fires inside any event loop the call might run; if it fires during
    // the call it has found the box that loop belongs to.
    bool probeFired = false;
    bool probeFoundBox = false;
    QTimer::singleShot(0, this, [&] {
        probeFired = true;
        probeFoundBox = QApplication::activeModalWidget() != nullptr;
    });
    // Keeps a wrongly shown box from hanging the test.
    BoxCloser closer;

    QElapsedTimer clock;
    clock.start();
    showOutcomeMessage(static_cast<UpdateOutcome>(outcome));
    QVERIFY2(!probeFired, "the call ran an event loop, so it showed something");
    QVERIFY(clock.elapsed() < 1000);

    QTRY_VERIFY(probeFired);
    QVERIFY(!probeFoundBox);
    QCOMPARE(closer.seen.count, 0);
    for (QWidget* w : QApplication::topLevelWidgets())
        QVERIFY2(!qobject_cast<QMessageBox*>(w), "a message box was created");
}

QTEST_MAIN(TestOutcomeMessage)
#include "tst_outcome_message.moc"

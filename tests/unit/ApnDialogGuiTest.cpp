// The access point picker: its widget tree, the rows it shows, selection by
// name, and the report of a clicked row. One test draws the dialog in a real
// X server and keeps a screenshot; it runs only on the xcb platform.

#include "src/ApnDialog.h"

#include "src/IAPConnectEngine.h"
#include "support/TestSupport.h"

#include <QDir>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QImage>
#include <QListWidget>
#include <QPixmap>
#include <QScreen>
#include <QScrollArea>
#include <QTest>
#include <QTimer>
#include <QWindow>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <map>

namespace {

using ::testing::Eq;
using ::testing::StrictMock;

const int KDeadlineMs = 5000;

class MockSelectIAPObserver : public SelectIAPObserver
{
public:
    MOCK_METHOD(void, onSelectedIAPName, (QString & name), (override));
};

QListWidget* ListOf(const CApnDialog& dialog)
{
    return dialog.findChild<QListWidget*>();
}

QScrollArea* ScrollAreaOf(const CApnDialog& dialog)
{
    return dialog.findChild<QScrollArea*>();
}

QStringList RowTexts(const QListWidget& list)
{
    QStringList texts;
    for (int row = 0; row < list.count(); ++row)
        texts << list.item(row)->text();
    return texts;
}

QList<int> SelectedRows(const QListWidget& list)
{
    QList<int> rows;
    for (int row = 0; row < list.count(); ++row) {
        if (list.item(row)->isSelected())
            rows << row;
    }
    return rows;
}

// Shows the dialog and waits until the window system has exposed it.
::testing::AssertionResult ShowAndWait(CApnDialog& dialog)
{
    dialog.show();
    if (!QTest::qWaitForWindowExposed(&dialog, KDeadlineMs))
        return ::testing::AssertionFailure() << "dialog was never exposed";
    return ::testing::AssertionSuccess();
}

// Clicks the middle of row in the dialog's list.
void ClickRow(const CApnDialog& dialog, int row)
{
    QListWidget* list = ListOf(dialog);
    const QRect rect = list->visualItemRect(list->item(row));
    QTest::mouseClick(list->viewport(), Qt::LeftButton, Qt::NoModifier, rect.center());
}

// ---------------------------------------------------------------- structure

TEST(ApnDialogGuiTest, ListSitsInAScrollAreaInAHorizontalLayout)
{
    QVector<QString> names{"cmnet", "cmwap"};
    CApnDialog dialog(names, nullptr);

    QListWidget* list = ListOf(dialog);
    QScrollArea* area = ScrollAreaOf(dialog);
    ASSERT_NE(nullptr, list);
    ASSERT_NE(nullptr, area);
    EXPECT_EQ(list, area->widget());
    EXPECT_TRUE(dialog.isAncestorOf(list));

    auto* layout = qobject_cast<QHBoxLayout*>(dialog.layout());
    ASSERT_NE(nullptr, layout);
    ASSERT_EQ(1, layout->count());
    EXPECT_EQ(area, layout->itemAt(0)->widget());
    EXPECT_EQ(QPalette::Dark, area->backgroundRole());
}

TEST(ApnDialogGuiTest, NamesBecomeRowsInOrder)
{
    QVector<QString> names{"cmwap", "cmnet", "uninet", "3gnet"};
    CApnDialog dialog(names, nullptr);
    EXPECT_EQ((QStringList{"cmwap", "cmnet", "uninet", "3gnet"}), RowTexts(*ListOf(dialog)));
}

TEST(ApnDialogGuiTest, NothingIsSelectedAtFirst)
{
    QVector<QString> names{"a", "b"};
    CApnDialog dialog(names, nullptr);
    EXPECT_TRUE(SelectedRows(*ListOf(dialog)).isEmpty());
}

TEST(ApnDialogGuiTest, FontFamilyNamesAreDefinedButNotApplied)
{
    EXPECT_STREQ("CombinedChinesePlain16", KApnFontFamilyPlain16);
    EXPECT_STREQ("CombinedChinesePlain12", KApnFontFamilyPlain12);

    QVector<QString> names{"a"};
    CApnDialog dialog(names, nullptr);
    EXPECT_NE(QString(KApnFontFamilyPlain16), ListOf(dialog)->font().family());
    EXPECT_NE(QString(KApnFontFamilyPlain12), ListOf(dialog)->font().family());
}

// ---------------------------------------------------------------- empty list

TEST(ApnDialogGuiTest, EmptyListShowsAnEmptyDialogAndReportsNothing)
{
    StrictMock<MockSelectIAPObserver> observer;  // any report fails the test
    QVector<QString> names;
    CApnDialog dialog(names, &observer);
    ASSERT_TRUE(ShowAndWait(dialog));
    velatest::ProcessPendingEvents();

    EXPECT_TRUE(dialog.isVisible());
    EXPECT_EQ(0, ListOf(dialog)->count());

    // A click into the empty list hits no row: no report, the dialog stays.
    QTest::mouseClick(ListOf(dialog)->viewport(), Qt::LeftButton, Qt::NoModifier, QPoint(10, 10));
    velatest::ProcessPendingEvents();
    EXPECT_TRUE(dialog.isVisible());
}

TEST(ApnDialogGuiTest, ShowingAListReportsNothingUntilARowIsClicked)
{
    StrictMock<MockSelectIAPObserver> observer;
    QVector<QString> names{"cmnet", "cmwap"};
    CApnDialog dialog(names, &observer);
    ASSERT_TRUE(ShowAndWait(dialog));
    dialog.SetSelectIap("cmwap");
    velatest::ProcessPendingEvents();
    EXPECT_TRUE(dialog.isVisible());
}

// ---------------------------------------------------------------- SetSelectIap

TEST(ApnDialogGuiTest, SetSelectIapSelectsTheFirstOfTwoEqualRows)
{
    QVector<QString> names{"other", "cmnet", "cmnet"};
    CApnDialog dialog(names, nullptr);
    dialog.SetSelectIap("cmnet");
    EXPECT_EQ(QList<int>{1}, SelectedRows(*ListOf(dialog)));
}

TEST(ApnDialogGuiTest, SetSelectIapComparesExactly)
{
    QVector<QString> names{"CMNET", "cmnet ", "cmne", "cmnet"};
    CApnDialog dialog(names, nullptr);
    dialog.SetSelectIap("cmnet");
    EXPECT_EQ(QList<int>{3}, SelectedRows(*ListOf(dialog)));
}

TEST(ApnDialogGuiTest, SetSelectIapWithoutAMatchSelectsNothing)
{
    QVector<QString> names{"cmnet", "cmwap"};
    CApnDialog dialog(names, nullptr);
    dialog.SetSelectIap("uninet");
    dialog.SetSelectIap("");
    EXPECT_TRUE(SelectedRows(*ListOf(dialog)).isEmpty());
}

TEST(ApnDialogGuiTest, SetSelectIapOnAnEmptyListDoesNothing)
{
    QVector<QString> names;
    CApnDialog dialog(names, nullptr);
    dialog.SetSelectIap("cmnet");
    EXPECT_EQ(0, ListOf(dialog)->count());
}

TEST(ApnDialogGuiTest, SetSelectIapFindsAnEmptyName)
{
    QVector<QString> names{"cmnet", "", "cmwap"};
    CApnDialog dialog(names, nullptr);
    dialog.SetSelectIap("");
    EXPECT_EQ(QList<int>{1}, SelectedRows(*ListOf(dialog)));
}

// ---------------------------------------------------------------- clicks

TEST(ApnDialogGuiTest, ClickingARowReportsItsNameAndCloses)
{
    StrictMock<MockSelectIAPObserver> observer;
    QVector<QString> names{"cmnet", "cmwap", "uninet"};
    CApnDialog dialog(names, &observer);
    ASSERT_TRUE(ShowAndWait(dialog));

    bool visibleDuringReport = false;
    EXPECT_CALL(observer, onSelectedIAPName(Eq(QString("cmwap")))).WillOnce([&](QString&) {
        visibleDuringReport = dialog.isVisible();
    });
    ClickRow(dialog, 1);

    // The report comes first, the dialog closes after it.
    EXPECT_TRUE(visibleDuringReport);
    EXPECT_TRUE(velatest::SpinUntil([&] { return !dialog.isVisible(); }, KDeadlineMs));
}

TEST(ApnDialogGuiTest, ItemClickedCalledDirectlyReportsTheItemsTextAndCloses)
{
    StrictMock<MockSelectIAPObserver> observer;
    QVector<QString> names{"cmnet", "cmwap"};
    CApnDialog dialog(names, &observer);
    ASSERT_TRUE(ShowAndWait(dialog));
    QListWidget* list = dialog.findChild<QListWidget*>();
    ASSERT_NE(nullptr, list);
    EXPECT_CALL(observer, onSelectedIAPName(Eq(QString("cmnet"))));
    dialog.listview_itemClicked(list->item(0));
    EXPECT_TRUE(velatest::SpinUntil([&] { return !dialog.isVisible(); }, KDeadlineMs));
}

TEST(ApnDialogGuiTest, ItemClickedWithoutAnItemReportsNothingAndStaysOpen)
{
    StrictMock<MockSelectIAPObserver> observer;
    QVector<QString> names{"cmnet"};
    CApnDialog dialog(names, &observer);
    ASSERT_TRUE(ShowAndWait(dialog));
    dialog.listview_itemClicked(nullptr);
    velatest::ProcessPendingEvents();
    EXPECT_TRUE(dialog.isVisible());
}

TEST(ApnDialogGuiTest, ClickingEachRowReportsThatRow)
{
    const QVector<QString> names{"first", "second", "third"};
    for (int row = 0; row < names.size(); ++row) {
        SCOPED_TRACE(row);
        StrictMock<MockSelectIAPObserver> observer;
        QVector<QString> copy = names;
        CApnDialog dialog(copy, &observer);
        ASSERT_TRUE(ShowAndWait(dialog));
        EXPECT_CALL(observer, onSelectedIAPName(Eq(names[row]))).Times(1);
        ClickRow(dialog, row);
        EXPECT_FALSE(dialog.isVisible());
    }
}

TEST(ApnDialogGuiTest, ClickingTheSecondOfTwoEqualRowsReportsThatName)
{
    StrictMock<MockSelectIAPObserver> observer;
    QVector<QString> names{"cmnet", "cmnet"};
    CApnDialog dialog(names, &observer);
    ASSERT_TRUE(ShowAndWait(dialog));
    EXPECT_CALL(observer, onSelectedIAPName(Eq(QString("cmnet")))).Times(1);
    ClickRow(dialog, 1);
    EXPECT_FALSE(dialog.isVisible());
}

TEST(ApnDialogGuiTest, ClickInAModalDialogEndsItsEventLoop)
{
    StrictMock<MockSelectIAPObserver> observer;
    QVector<QString> names{"cmnet", "cmwap"};
    CApnDialog dialog(names, &observer);
    EXPECT_CALL(observer, onSelectedIAPName(Eq(QString("cmnet")))).Times(1);

    bool clicked = false;
    QTimer::singleShot(0, &dialog, [&] {
        if (QTest::qWaitForWindowExposed(&dialog, KDeadlineMs)) {
            ClickRow(dialog, 0);
            clicked = true;
        } else {
            dialog.reject();
        }
    });
    // A click that fails to close the dialog must not hang the suite.
    bool timedOut = false;
    QTimer::singleShot(KDeadlineMs, &dialog, [&] {
        timedOut = true;
        dialog.reject();
    });
    dialog.exec();
    EXPECT_TRUE(clicked);
    EXPECT_FALSE(timedOut);
    EXPECT_FALSE(dialog.isVisible());
}

TEST(ApnDialogGuiTest, ClickWithoutAnObserverOnlyCloses)
{
    QVector<QString> names{"cmnet"};
    CApnDialog dialog(names, nullptr);
    ASSERT_TRUE(ShowAndWait(dialog));
    ClickRow(dialog, 0);
    EXPECT_FALSE(dialog.isVisible());
}

TEST(ApnDialogGuiTest, TheAccessPointEngineTakesTheReport)
{
    CIAPConnectEngine* engine = CIAPConnectEngine::NewL("cmnet");
    ASSERT_NE(nullptr, engine);
    {
        QVector<QString> names{"cmnet", "cmwap"};
        CApnDialog dialog(names, engine);
        ASSERT_TRUE(ShowAndWait(dialog));
        ClickRow(dialog, 1);
        EXPECT_FALSE(dialog.isVisible());
    }
    // The engine keeps the name it was made with: the report changes nothing.
    EXPECT_EQ(QString("cmnet"), engine->GetIAPId());
    delete engine;
}

// ---------------------------------------------------------------- real X server

// The colour most pixels of rect have: the row's background.
QRgb DominantColour(const QImage& image, const QRect& rect)
{
    std::map<QRgb, int> counts;
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        for (int x = rect.left(); x <= rect.right(); ++x)
            ++counts[image.pixel(x, y)];
    }
    QRgb best = 0;
    int bestCount = -1;
    for (const auto& entry : counts) {
        if (entry.second > bestCount) {
            best = entry.first;
            bestCount = entry.second;
        }
    }
    return best;
}

// Pixels of rect that differ clearly from colour: glyph strokes on a row.
int InkPixels(const QImage& image, const QRect& rect, QRgb colour)
{
    const int KThreshold = 96;  // sum of channel differences
    int ink = 0;
    for (int y = rect.top(); y <= rect.bottom(); ++y) {
        for (int x = rect.left(); x <= rect.right(); ++x) {
            const QRgb p = image.pixel(x, y);
            const int diff = std::abs(qRed(p) - qRed(colour)) + std::abs(qGreen(p) - qGreen(colour)) +
                             std::abs(qBlue(p) - qBlue(colour));
            if (diff > KThreshold)
                ++ink;
        }
    }
    return ink;
}

TEST(ApnDialogGuiTest, DrawsRowsUnderX)
{
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        GTEST_SKIP() << "needs a real X server (QT_QPA_PLATFORM=xcb), platform is "
                     << QGuiApplication::platformName().toStdString();

    QVector<QString> names{"cmnet", "cmwap", "uninet", "3gnet"};
    CApnDialog dialog(names, nullptr);
    dialog.SetSelectIap("cmwap");
    ASSERT_TRUE(ShowAndWait(dialog));

    QListWidget* list = ListOf(dialog);
    QScreen* screen = dialog.windowHandle()->screen();
    ASSERT_NE(nullptr, screen);

    // Take the picture from the X server itself, once the rows are on it.
    const QRect firstRow = list->visualItemRect(list->item(0));
    const QRect firstRowInDialog(list->viewport()->mapTo(&dialog, firstRow.topLeft()), firstRow.size());
    QImage image;
    const bool drawn = velatest::SpinUntil(
        [&] {
            image = screen->grabWindow(dialog.winId()).toImage().convertToFormat(QImage::Format_RGB32);
            if (image.isNull() || !image.rect().contains(firstRowInDialog))
                return false;
            return InkPixels(image, firstRowInDialog, DominantColour(image, firstRowInDialog)) > 0;
        },
        KDeadlineMs);

    ASSERT_FALSE(image.isNull());
    const QString path = QStringLiteral(VELANET_SCREENSHOT_DIR) + "/ApnDialog.png";
    QDir().mkpath(QStringLiteral(VELANET_SCREENSHOT_DIR));
    ASSERT_TRUE(image.save(path, "PNG")) << path.toStdString();
    std::cout << "screenshot: " << path.toStdString() << std::endl;
    RecordProperty("screenshot", path.toStdString());
    ASSERT_TRUE(drawn) << "the first row never showed on the screen";

    // The pixel grab matches the window's own size (no device scaling here).
    ASSERT_EQ(dialog.size(), image.size());

    const QRgb base = list->viewport()->palette().color(QPalette::Base).rgb();
    QRect lastRowInDialog;
    for (int row = 0; row < names.size(); ++row) {
        SCOPED_TRACE(names[row].toStdString());
        const QRect r = list->visualItemRect(list->item(row));
        const QRect inDialog(list->viewport()->mapTo(&dialog, r.topLeft()), r.size());
        ASSERT_TRUE(image.rect().contains(inDialog));
        // Each row carries text: a few dozen pixels stand out from its background.
        const QRgb background = DominantColour(image, inDialog);
        EXPECT_GE(InkPixels(image, inDialog, background), 20);
        // The selected row is painted in another colour than the plain rows.
        if (row == 1)
            EXPECT_NE(base, background);
        else
            EXPECT_EQ(base, background);
        lastRowInDialog = inDialog;
    }

    // Below the last row the list is empty: plain background, no ink, so the
    // ink counted above is the rows' text.
    const QPoint viewportBottom = list->viewport()->mapTo(&dialog, QPoint(0, list->viewport()->height() - 1));
    const QRect below(lastRowInDialog.left(), lastRowInDialog.bottom() + 1, lastRowInDialog.width(),
                      viewportBottom.y() - lastRowInDialog.bottom());
    ASSERT_GT(below.height(), lastRowInDialog.height());
    EXPECT_EQ(base, DominantColour(image, below));
    EXPECT_EQ(0, InkPixels(image, below, base));
}

}  // namespace

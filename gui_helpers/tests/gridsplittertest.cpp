// SPDX-License-Identifier: MIT
//
// Drives a 2 x 2 grid splitter with mouse events through the window system layer (QTest's
// QWindow overloads), so presses, implicit grabs, enter/leave and held buttons are real.
// The splitter sits inside a larger window so that drags can leave it on every side.
#include "gridsplitter.h"

#include <QApplication>
#include <QGridLayout>
#include <QTest>

#include <memory>

namespace
{
// 205 pixels: two 100-pixel cells and the 5-pixel gap between them.
constexpr int side = 205;
constexpr int offset = 50;
const QPoint rowGap(50, 102);
const QPoint columnGap(102, 50);
const QPoint crossing(102, 102);
const QPoint onTopLeftChild(50, 50);
const QPoint onBottomRightChild(150, 150);
const QPoint outside(-20, 50);

struct Fixture {
    QWidget window;
    GridSplitter* splitter = nullptr;
    QWidget* children[2][2] = {};

    Fixture()
    {
        window.resize(side + 2 * offset, side + 2 * offset);
        splitter = new GridSplitter(&window);
        splitter->setGeometry(offset, offset, side, side);
        for (int r = 0; r < 2; ++r) {
            for (int c = 0; c < 2; ++c) {
                children[r][c] = new QWidget;
                splitter->grid()->addWidget(children[r][c], r, c);
            }
        }
        splitter->resetGrid(-1, -1);
        window.show();
    }

    QWindow* handle() const { return window.windowHandle(); }
    QPoint toWindow(QPoint p) const { return p + QPoint(offset, offset); }
    void press(QPoint p, Qt::MouseButton button = Qt::LeftButton) { QTest::mousePress(handle(), button, Qt::NoModifier, toWindow(p)); }
    void release(QPoint p, Qt::MouseButton button = Qt::LeftButton) { QTest::mouseRelease(handle(), button, Qt::NoModifier, toWindow(p)); }
    void move(QPoint p) { QTest::mouseMove(handle(), toWindow(p)); }
    int rowStretch(int r) const { return splitter->grid()->rowStretch(r); }
    int columnStretch(int c) const { return splitter->grid()->columnStretch(c); }
    QList<int> stretches() const { return {rowStretch(0), rowStretch(1), columnStretch(0), columnStretch(1)}; }
    Qt::CursorShape cursor() const { return splitter->cursor().shape(); }
};

/** Whether a move to @p p is on a splitter bar (1 or 0), and the row and column reported. */
QList<int> barAt(GridSplitter* splitter, QPoint p)
{
    int row = 7;
    int column = 7;
    const QMouseEvent event(QEvent::MouseMove, QPointF(p), QPointF(p), QPointF(p), Qt::NoButton, Qt::NoButton, Qt::NoModifier);
    const bool onBar = splitter->isEventOnSplitterBar(&event, row, column);
    return {int(onBar), row, column};
}
} // namespace

class GridSplitterTest : public QObject
{
    Q_OBJECT
private Q_SLOTS:
    void init()
    {
        m_f = std::make_unique<Fixture>();
        QVERIFY(QTest::qWaitForWindowExposed(&m_f->window));
    }
    void cleanup() { m_f.reset(); }

    void hitTestAndHoverCursor_data()
    {
        QTest::addColumn<QPoint>("point");
        QTest::addColumn<int>("row");
        QTest::addColumn<int>("column");
        QTest::addColumn<int>("cursor");
        QTest::newRow("row gap") << rowGap << 0 << -1 << int(Qt::SplitVCursor);
        QTest::newRow("column gap") << columnGap << -1 << 0 << int(Qt::SplitHCursor);
        QTest::newRow("crossing") << crossing << 0 << 0 << int(Qt::SizeAllCursor);
        QTest::newRow("row gap at the right") << QPoint(200, 100) << 0 << -1 << int(Qt::SplitVCursor);
        QTest::newRow("column gap at the bottom") << QPoint(104, 204) << -1 << 0 << int(Qt::SplitHCursor);
        QTest::newRow("on a child") << onBottomRightChild << -1 << -1 << int(Qt::ArrowCursor);
        QTest::newRow("child's last pixel") << QPoint(99, 99) << -1 << -1 << int(Qt::ArrowCursor);
    }
    void hitTestAndHoverCursor()
    {
        QFETCH(QPoint, point);
        QFETCH(int, row);
        QFETCH(int, column);
        QCOMPARE(m_f->splitter->grid()->cellRect(1, 1), QRect(105, 105, 100, 100));
        QCOMPARE(barAt(m_f->splitter, point), (QList<int> {int(row != -1 || column != -1), row, column}));
        m_f->move(onTopLeftChild);
        m_f->move(point);
        QTEST(int(m_f->cursor()), "cursor");
    }

    void cursorIsRestoredOnChildrenAndOnLeaving()
    {
        // The children inherit the split cursor until the arrow is put back on entering one.
        const std::pair<QPoint, Qt::CursorShape> steps[] = {{onTopLeftChild, Qt::ArrowCursor},
            {rowGap, Qt::SplitVCursor},
            {onBottomRightChild, Qt::ArrowCursor},
            {crossing, Qt::SizeAllCursor},
            {outside, Qt::ArrowCursor},
            {columnGap, Qt::SplitHCursor}};
        for (const auto& [point, shape] : steps) {
            m_f->move(point);
            QCOMPARE(m_f->cursor(), shape);
        }
        // A child that moves while the split cursor shows also restores it.
        QMoveEvent moved(QPoint(1, 1), QPoint(0, 0));
        QApplication::sendEvent(m_f->children[0][0], &moved);
        QCOMPARE(m_f->cursor(), Qt::ArrowCursor);

        // A child taken out of the grid no longer does.
        m_f->move(rowGap);
        QCOMPARE(m_f->cursor(), Qt::SplitVCursor);
        std::unique_ptr<QWidget> orphan(m_f->children[1][1]);
        orphan->setParent(nullptr);
        QEvent enter(QEvent::Enter);
        QApplication::sendEvent(orphan.get(), &enter);
        QCOMPARE(m_f->cursor(), Qt::SplitVCursor);
        QApplication::sendEvent(m_f->children[0][1], &enter);
        QCOMPARE(m_f->cursor(), Qt::ArrowCursor);
    }

    // Dragging a gap, or the crossing, to a point; each pair of stretches keeps its sum of
    // 20000 and never goes below 1. (50 - 0) * 20000 / (204 - 0), in integers, is 4901.
    void dragging_data()
    {
        QTest::addColumn<QPoint>("start");
        QTest::addColumn<QPoint>("to");
        QTest::addColumn<QList<int>>("rows");
        QTest::addColumn<QList<int>>("columns");
        const QList<int> even {10000, 10000};
        QTest::newRow("row gap within range") << rowGap << QPoint(50, 50) << QList<int> {4901, 15099} << even;
        QTest::newRow("row gap into the lower row") << rowGap << QPoint(50, 160) << QList<int> {15686, 4314} << even;
        QTest::newRow("row gap to the top") << rowGap << QPoint(50, 0) << QList<int> {1, 19999} << even;
        QTest::newRow("row gap past the top") << rowGap << QPoint(50, -30) << QList<int> {1, 19999} << even;
        QTest::newRow("row gap to the bottom") << rowGap << QPoint(50, 204) << QList<int> {19999, 1} << even;
        QTest::newRow("row gap past the bottom") << rowGap << QPoint(50, 240) << QList<int> {19999, 1} << even;
        QTest::newRow("column gap within range") << columnGap << QPoint(150, 50) << even << QList<int> {14705, 5295};
        QTest::newRow("column gap past the right") << columnGap << QPoint(side + 40, 50) << even << QList<int> {19999, 1};
        QTest::newRow("column gap past the left") << columnGap << QPoint(-40, 50) << even << QList<int> {1, 19999};
        QTest::newRow("crossing moves both gaps") << crossing << QPoint(51, 153) << QList<int> {15000, 5000} << QList<int> {5000, 15000};
    }
    void dragging()
    {
        QFETCH(QPoint, start);
        QFETCH(QPoint, to);
        QFETCH(QList<int>, rows);
        QFETCH(QList<int>, columns);
        m_f->press(start);
        m_f->move(start + QPoint(1, 1)); // the drag goes on over several moves
        m_f->move(to);
        QCOMPARE(m_f->stretches(), rows + columns);
        m_f->release(to);

        // The layout follows the stretches: the gaps end up near where they were dropped.
        const auto end = [](int stretch) {
            return qBound(0, 200 * stretch / 20000, 199) - 1;
        };
        QTRY_VERIFY(qAbs(m_f->splitter->grid()->cellRect(0, 0).bottom() - end(rows.first())) <= 2);
        QTRY_VERIFY(qAbs(m_f->splitter->grid()->cellRect(0, 0).right() - end(columns.first())) <= 2);

        // Released: moving no longer drags.
        m_f->move(onBottomRightChild);
        m_f->move(QPoint(30, 30));
        QCOMPARE(m_f->stretches(), rows + columns);
    }

    void pressOnChildClearsDrag()
    {
        m_f->press(rowGap);
        // A second button pressed over a child, the first still held. The window system
        // first moves the mouse there (a drag step, against the old layout), then presses.
        m_f->press(onBottomRightChild, Qt::RightButton);
        const int upper = m_f->rowStretch(0);
        QCOMPARE(upper, 150 * 20000 / 204);
        m_f->move(QPoint(rowGap.x(), 20));
        QCOMPARE(m_f->rowStretch(0), upper);
        m_f->release(QPoint(rowGap.x(), 20), Qt::RightButton);
        m_f->release(QPoint(rowGap.x(), 20));
    }

    void releaseAnywhereEndsDrag()
    {
        m_f->press(columnGap);
        // Releasing outside drags there first, like a real mouse, then ends the drag.
        m_f->release(outside);
        QCOMPARE(m_f->stretches(), (QList<int> {10000, 10000, 1, 19999}));
        m_f->move(QPoint(30, 30));
        m_f->move(QPoint(180, 30));
        QCOMPARE(m_f->stretches(), (QList<int> {10000, 10000, 1, 19999}));
    }

    void pairWithoutStretchStartsFromDefaults()
    {
        m_f->splitter->grid()->setRowStretch(0, 0);
        m_f->splitter->grid()->setRowStretch(1, 0);
        m_f->press(rowGap);
        m_f->move(QPoint(rowGap.x(), rowGap.y() + 1));
        QVERIFY(m_f->rowStretch(0) >= 1 && m_f->rowStretch(1) >= 1);
        QCOMPARE(m_f->rowStretch(0) + m_f->rowStretch(1), 20000);
        m_f->release(rowGap);
    }

    void resetGridRestoresDefaults()
    {
        QGridLayout* grid = m_f->splitter->grid();
        const auto scramble = [grid] {
            grid->setRowStretch(0, 3);
            grid->setRowStretch(1, 19997);
            grid->setColumnStretch(0, 5);
            grid->setColumnStretch(1, 19995);
        };
        scramble();
        m_f->splitter->resetGrid(1, 0);
        QCOMPARE(m_f->stretches(), (QList<int> {3, 10000, 10000, 19995}));
        scramble();
        m_f->splitter->resetGrid(-1, -1);
        QCOMPARE(m_f->stretches(), (QList<int> {10000, 10000, 10000, 10000}));
    }

    void removeAllChildrenKeepsWidgets()
    {
        m_f->splitter->grid()->addWidget(new QWidget, 2, 0, 1, 2); // a span
        m_f->splitter->grid()->addItem(new QSpacerItem(1, 1), 3, 1);
        m_f->splitter->removeAllChildren();
        QCOMPARE(m_f->splitter->grid()->count(), 0);
        QCOMPARE(m_f->children[1][1]->parentWidget(), m_f->splitter);

        QCOMPARE(barAt(m_f->splitter, rowGap), (QList<int> {0, -1, -1}));
        m_f->press(rowGap);
        m_f->move(QPoint(rowGap.x(), 20));
        m_f->release(QPoint(rowGap.x(), 20));
        QCOMPARE(m_f->rowStretch(0), 10000);
    }

    void paintsOnlyInnerGapLines()
    {
        const QImage image = m_f->splitter->grab().toImage();
        const QString snapshotDir = qEnvironmentVariable("GUI_HELPERS_SNAPSHOT_DIR");
        if (!snapshotDir.isEmpty())
            image.save(snapshotDir + QStringLiteral("/gridsplitter.png"));

        const QPalette palette = QApplication::palette();
        const QRgb shadow = palette.color(palette.currentColorGroup(), QPalette::Shadow).rgb();
        const QRgb window = palette.color(palette.currentColorGroup(), QPalette::Window).rgb();
        QVERIFY(shadow != window);
        // Lines sit one pixel before the second row and column: y = 104 and x = 104.
        for (const QPoint p : {QPoint(50, 104), QPoint(150, 104), QPoint(104, 50), QPoint(104, 150), QPoint(104, 104)})
            QVERIFY2(image.pixel(p) == shadow, qPrintable(QStringLiteral("%1,%2").arg(p.x()).arg(p.y())));
        // The rest of the gaps is the window colour.
        for (const QPoint p : {QPoint(50, 101), QPoint(101, 50), QPoint(150, 100)})
            QVERIFY2(image.pixel(p) == window, qPrintable(QStringLiteral("%1,%2").arg(p.x()).arg(p.y())));
    }

private:
    std::unique_ptr<Fixture> m_f;
};

QTEST_MAIN(GridSplitterTest)
#include "gridsplittertest.moc"

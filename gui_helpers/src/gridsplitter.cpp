// SPDX-License-Identifier: MIT
#include "gridsplitter.h"

#include <QApplication>
#include <QChildEvent>
#include <QGridLayout>
#include <QMouseEvent>
#include <QPainter>
#include <QPen>

#include <climits>

class GridSplitterPrivate
{
public:
    struct ItemCells {
        int row = 0;
        int column = 0;
        QRect rect;
    };

    /** Cells and bounding rectangle (first cell's top-left to last cell's bottom-right) of item @p index. */
    ItemCells itemCells(int index) const
    {
        ItemCells cells;
        int rowSpan = 1;
        int columnSpan = 1;
        grid->getItemPosition(index, &cells.row, &cells.column, &rowSpan, &columnSpan);
        // A span of -1 at insertion means "to the last row/column"; never let it reach below 1.
        const int lastRow = cells.row + qMax(rowSpan, 1) - 1;
        const int lastColumn = cells.column + qMax(columnSpan, 1) - 1;
        cells.rect = QRect(grid->cellRect(cells.row, cells.column).topLeft(), grid->cellRect(lastRow, lastColumn).bottomRight());
        return cells;
    }

    /**
     * New stretches of the two neighbours of a gap dragged to @p position, which lies in
     * [@p start, @p end] when inside the pair. Returns false when the pair has no extent.
     */
    static bool splitStretch(int position, int start, int end, int stretchBefore, int stretchAfter, int defaultStretch, int& first, int& second)
    {
        const qint64 extent = qint64(end) - start;
        if (extent <= 0)
            return false;
        qint64 total = qint64(stretchBefore) + stretchAfter;
        if (total < 2)
            total = 2 * qint64(defaultStretch);
        total = qMin<qint64>(total, INT_MAX);
        qint64 before = (qint64(position) - start) * total / extent;
        if (before < 1)
            before = 1;
        qint64 after;
        if (before < total) {
            after = total - before;
        } else {
            before = total - 1;
            after = 1;
        }
        first = int(before);
        second = int(after);
        return true;
    }

    QGridLayout* grid = nullptr;
    int dragColumn = -1;
    int dragRow = -1;
    bool cursorChanged = false;
};

namespace
{
QPoint roundedPosition(const QMouseEvent* event)
{
    return event->localPos().toPoint();
}
} // namespace

GridSplitter::GridSplitter(QWidget* parent)
    : QWidget(parent)
    , d(new GridSplitterPrivate)
{
    d->grid = new QGridLayout(this);
    d->grid->setContentsMargins(0, 0, 0, 0);
    // The spacing is the bar the user grabs.
    d->grid->setVerticalSpacing(5);
    d->grid->setHorizontalSpacing(5);
    setLayout(d->grid);
    // Tracking, so that hovering a gap changes the cursor without a button held.
    setAttribute(Qt::WA_MouseTracking);
    setAttribute(Qt::WA_OpaquePaintEvent);
}

GridSplitter::~GridSplitter() = default;

QGridLayout* GridSplitter::grid() const
{
    return d->grid;
}

int GridSplitter::defaultStretch() const
{
    return 10000;
}

void GridSplitter::resetGrid(int row, int column)
{
    if (row == -1) {
        for (int r = 0; r < d->grid->rowCount(); ++r)
            d->grid->setRowStretch(r, defaultStretch());
    } else if (row >= 0) {
        d->grid->setRowStretch(row, defaultStretch());
    }
    if (column == -1) {
        for (int c = 0; c < d->grid->columnCount(); ++c)
            d->grid->setColumnStretch(c, defaultStretch());
    } else if (column >= 0) {
        d->grid->setColumnStretch(column, defaultStretch());
    }
    update();
}

void GridSplitter::removeAllChildren()
{
    for (int r = 0; r < d->grid->rowCount(); ++r) {
        for (int c = 0; c < d->grid->columnCount(); ++c) {
            if (QLayoutItem* item = d->grid->itemAtPosition(r, c)) {
                d->grid->removeItem(item);
                // Widget items and spacers are the layout's own wrappers: deleting them leaves the
                // widget alone. A nested layout stays a child of the grid, which deletes it.
                if (!item->layout())
                    delete item;
            }
        }
    }
}

bool GridSplitter::isEventOnSplitterBar(const QMouseEvent* event, int& row, int& column)
{
    row = -1;
    column = -1;
    if (!event)
        return false;
    const int count = d->grid->count();
    if (count == 0)
        return false;
    const QPoint pos = roundedPosition(event);
    for (int i = 0; i < count; ++i) {
        if (d->itemCells(i).rect.contains(pos))
            return false;
    }
    if (count >= 2) {
        for (int r = 0; r + 1 < d->grid->rowCount(); ++r) {
            if (pos.y() > d->grid->cellRect(r, 0).bottom() && pos.y() < d->grid->cellRect(r + 1, 0).top()) {
                row = r;
                break;
            }
        }
        for (int c = 0; c + 1 < d->grid->columnCount(); ++c) {
            if (pos.x() > d->grid->cellRect(0, c).right() && pos.x() < d->grid->cellRect(0, c + 1).left()) {
                column = c;
                break;
            }
        }
    }
    return row != -1 || column != -1;
}

bool GridSplitter::eventFilter(QObject* watched, QEvent* event)
{
    // The children inherit our split cursor; put the arrow back once the mouse is on one.
    if (d->dragRow == -1 && d->dragColumn == -1 && d->cursorChanged && (event->type() == QEvent::Enter || event->type() == QEvent::Move)) {
        // The flag stays set: leaving the splitter later must still restore the cursor.
        setCursor(Qt::ArrowCursor);
    }
    return QObject::eventFilter(watched, event);
}

void GridSplitter::childEvent(QChildEvent* event)
{
    // During ChildRemoved the child may be half destroyed: use it only as a QObject.
    QObject* child = event->child();
    if (!child || !child->isWidgetType())
        return;
    if (event->type() == QEvent::ChildAdded)
        child->installEventFilter(this);
    else if (event->type() == QEvent::ChildRemoved)
        child->removeEventFilter(this);
}

void GridSplitter::leaveEvent(QEvent* event)
{
    if (d->cursorChanged) {
        setCursor(Qt::ArrowCursor);
        d->cursorChanged = false;
    }
    QWidget::leaveEvent(event);
}

void GridSplitter::mousePressEvent(QMouseEvent* event)
{
    // Off the gaps this clears both, so a press on a child ends any drag.
    isEventOnSplitterBar(event, d->dragRow, d->dragColumn);
    QWidget::mousePressEvent(event);
}

void GridSplitter::mouseMoveEvent(QMouseEvent* event)
{
    const QPoint pos = roundedPosition(event);
    bool changed = false;
    if (d->dragRow != -1) {
        const int r = d->dragRow;
        int first = 0;
        int second = 0;
        if (GridSplitterPrivate::splitStretch(pos.y(),
                d->grid->cellRect(r, 0).top(),
                d->grid->cellRect(r + 1, 0).bottom(),
                d->grid->rowStretch(r),
                d->grid->rowStretch(r + 1),
                defaultStretch(),
                first,
                second)) {
            d->grid->setRowStretch(r, first);
            d->grid->setRowStretch(r + 1, second);
            changed = true;
        }
    }
    if (d->dragColumn != -1) {
        const int c = d->dragColumn;
        int first = 0;
        int second = 0;
        if (GridSplitterPrivate::splitStretch(pos.x(),
                d->grid->cellRect(0, c).left(),
                d->grid->cellRect(0, c + 1).right(),
                d->grid->columnStretch(c),
                d->grid->columnStretch(c + 1),
                defaultStretch(),
                first,
                second)) {
            d->grid->setColumnStretch(c, first);
            d->grid->setColumnStretch(c + 1, second);
        }
        QWidget::mouseMoveEvent(event);
        update();
        return;
    }
    if (d->dragRow == -1) {
        int row = -1;
        int column = -1;
        if (isEventOnSplitterBar(event, row, column)) {
            if (row == -1)
                setCursor(Qt::SplitHCursor);
            else if (column == -1)
                setCursor(Qt::SplitVCursor);
            else
                setCursor(Qt::SizeAllCursor);
            d->cursorChanged = true;
        }
    }
    QWidget::mouseMoveEvent(event);
    if (changed)
        update();
}

void GridSplitter::mouseReleaseEvent(QMouseEvent* event)
{
    d->dragRow = -1;
    d->dragColumn = -1;
    QWidget::mouseReleaseEvent(event);
}

void GridSplitter::paintEvent(QPaintEvent* event)
{
    QWidget::paintEvent(event);
    const QPalette palette = QApplication::palette();
    const QPalette::ColorGroup group = palette.currentColorGroup();
    QPainter painter(this);
    painter.fillRect(event->rect(), palette.brush(group, QPalette::Window));
    painter.setPen(QPen(palette.brush(group, QPalette::Shadow), 1, Qt::SolidLine, Qt::SquareCap, Qt::BevelJoin));
    for (int i = 0; i < d->grid->count(); ++i) {
        const GridSplitterPrivate::ItemCells cells = d->itemCells(i);
        const QRect& r = cells.rect;
        // Lines on the top and left of items away from the first row/column: inner gaps only.
        if (cells.row != 0)
            painter.drawLine(r.left() - 1, r.top() - 1, r.right() + 1, r.top() - 1);
        if (cells.column != 0)
            painter.drawLine(r.left() - 1, r.top() - 1, r.left() - 1, r.bottom() + 1);
    }
}

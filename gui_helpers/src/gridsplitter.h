// SPDX-License-Identifier: MIT
//
// A splitter in two directions: a grid of widgets whose row and column gaps the user drags.
#pragma once

#include "gui_helpers_export.h"

#include <QWidget>

#include <memory>

class QGridLayout;
class QMouseEvent;
class GridSplitterPrivate;

/**
 * Lays its children out in a QGridLayout with 5-pixel gaps and lets the user drag the gaps
 * between rows and between columns, both at once at a crossing.
 *
 * Dragging a gap moves stretch from one neighbouring row (or column) to the other, keeping
 * their sum and leaving each at least 1; nothing is resized directly. The host fills grid()
 * and should then call resetGrid(-1, -1), so that every row and column starts from
 * defaultStretch() (a fresh QGridLayout gives every row and column stretch 0; two
 * neighbours whose stretches add up to less than 2 are dragged as if both had
 * defaultStretch()). Hovering a gap shows a split cursor; only inner gaps get a line.
 *
 * The event handlers are public so that a host may forward mouse events it intercepts
 * elsewhere.
 */
class GUI_HELPERS_EXPORT GridSplitter : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY(GridSplitter)
public:
    explicit GridSplitter(QWidget* parent = nullptr);
    ~GridSplitter() override;

    /** The layout to which the host adds its widgets. */
    QGridLayout* grid() const;
    /** 10000, the stretch every row and column gets from resetGrid(). */
    int defaultStretch() const;
    /** Gives @p row (every row if -1) and @p column (every column if -1) defaultStretch(). */
    void resetGrid(int row, int column);
    /** Takes every item out of the grid; the widgets stay alive and remain children. */
    void removeAllChildren();

    /**
     * Whether @p event lies on a gap. @p row receives the index of the row above a row gap
     * and @p column that of the column left of a column gap, -1 where there is none; both
     * are set at a crossing. A point on a child, or a grid of fewer than two items, gives
     * false with both -1.
     */
    bool isEventOnSplitterBar(const QMouseEvent* event, int& row, int& column);

    bool eventFilter(QObject* watched, QEvent* event) override;
    void childEvent(QChildEvent* event) override;
    void leaveEvent(QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void paintEvent(QPaintEvent* event) override;

private:
    std::unique_ptr<GridSplitterPrivate> const d;
};

// SPDX-License-Identifier: MIT
#include "autoupdatewindow.h"

#include "autoupdate.h"
#include "autoupdate_p.h"
#include "ui_autoupdatewindow.h"

#include <QDateTime>
#include <QDesktopServices>
#include <QHeaderView>
#include <QSettings>
#include <QTableWidgetItem>
#include <QUrl>

#include <algorithm>

using autoupdate_p::compareVersions;

class AutoUpdateWindowPrivate
{
public:
    AutoUpdateWindowPrivate(AutoUpdatable* host, AutoUpdate* autoUpdate)
        : host(host)
        , autoUpdate(autoUpdate)
    {
    }

    const std::unique_ptr<Ui_AutoUpdateWindow> ui {new Ui_AutoUpdateWindow};
    AutoUpdatable* const host;
    AutoUpdate* const autoUpdate;
    int64_t licenseDateLimit = 0;
};

QMap<int, QString> AutoUpdateWindow::colMap;

AutoUpdateWindow::AutoUpdateWindow(AutoUpdatable* host, AutoUpdate* autoUpdate, QWidget* parent, Qt::WindowFlags flags)
    : QDialog(parent, flags)
    , d(new AutoUpdateWindowPrivate(host, autoUpdate ? autoUpdate : new AutoUpdate(host, this)))
{
    d->autoUpdate->setAllowMessageBoxes(true);
    if (colMap.isEmpty()) {
        colMap.insert(0, tr("Version"));
        colMap.insert(1, tr("Status"));
        colMap.insert(2, tr("Date"));
        colMap.insert(3, tr("Notes"));
        colMap.insert(4, tr("More information"));
    }

    d->ui->setupUi(this);
    d->ui->newVersionTextLabel->hide();
    d->ui->failureLabel->hide();
    d->ui->versionTableWidget->hide();
    d->ui->availableVersionsLabel->hide();
    d->ui->retrievingLabel->show();

    d->licenseDateLimit = d->host->licenseDateLimit();

    connect(d->autoUpdate, &AutoUpdate::versionsUpdated, this, &AutoUpdateWindow::updateVersionTable);
    connect(d->autoUpdate, &AutoUpdate::failedToGetVersions, this, &AutoUpdateWindow::reportUpdateFailure);

    QTableWidget* table = d->ui->versionTableWidget;
    table->setColumnCount(colMap.size());
    table->horizontalHeader()->setSectionResizeMode(QHeaderView::ResizeToContents);
    table->setHorizontalHeaderLabels(colMap.values());
    table->setSelectionBehavior(QAbstractItemView::SelectRows);
    table->setSelectionMode(QAbstractItemView::SingleSelection);
    connect(table, &QTableWidget::itemSelectionChanged, this, &AutoUpdateWindow::selectionChanged);

    d->ui->updatePushButton->setEnabled(false);
    d->ui->updatePushButton->setText(tr("Download"));
    d->ui->updatePushButton->setToolTip(tr("Download the selected item"));
    connect(d->ui->updatePushButton, &QPushButton::clicked, this, &AutoUpdateWindow::doUpdate);
    connect(d->ui->cancelPushButton, &QPushButton::clicked, this, &QWidget::close);

    const int interval = d->host->updateCheckInterval();
    if (interval == 0) {
        d->ui->updateIntervalSpinBox->setValue(7);
        d->ui->updateIntervalSpinBox->setEnabled(false);
        d->ui->intervalCheckBox->setChecked(false);
    } else {
        d->ui->updateIntervalSpinBox->setValue(interval);
        d->ui->updateIntervalSpinBox->setEnabled(true);
        d->ui->intervalCheckBox->setChecked(true);
    }
    // With large fonts the interval text and its spin box do not fit side by side in the
    // dialog's width; the spin box then goes below the text rather than cutting it.
    const int margins = layout()->contentsMargins().left() + layout()->contentsMargins().right();
    if (d->ui->intervalCheckBox->sizeHint().width() + d->ui->intervalLayout->spacing() + d->ui->updateIntervalSpinBox->sizeHint().width() + margins > minimumWidth()) {
        d->ui->intervalLayout->setDirection(QBoxLayout::TopToBottom);
        d->ui->intervalLayout->setAlignment(d->ui->updateIntervalSpinBox, Qt::AlignLeft);
    }
    connect(d->ui->intervalCheckBox, &QCheckBox::clicked, this, &AutoUpdateWindow::intervalChanged);
    connect(d->ui->updateIntervalSpinBox, QOverload<int>::of(&QSpinBox::valueChanged), this, &AutoUpdateWindow::intervalChanged);

    QSettings settings;
    settings.beginGroup(autoupdate_p::updateCheckGroup());
    const bool acceptBeta = settings.value(autoupdate_p::acceptBetaKey(), false).toBool();
    settings.endGroup();
    if (!d->host->allowBetaVersions()) {
        d->ui->betaCheckBox->hide();
    } else {
        d->ui->betaCheckBox->setChecked(acceptBeta);
        connect(d->ui->betaCheckBox, &QCheckBox::clicked, this, &AutoUpdateWindow::betaChanged);
        connect(d->ui->betaCheckBox, &QCheckBox::clicked, this, &AutoUpdateWindow::updateVersionTable);
    }

    if (!d->autoUpdate->versions().isEmpty())
        updateVersionTable();
    else
        d->autoUpdate->refresh();
}

AutoUpdateWindow::~AutoUpdateWindow() = default;

void AutoUpdateWindow::setNewVersionText(const QString& text)
{
    d->ui->newVersionTextLabel->setText(text);
}

void AutoUpdateWindow::updateVersionTable()
{
    d->ui->failureLabel->hide();
    d->ui->retrievingLabel->hide();
    d->ui->versionTableWidget->show();
    d->ui->availableVersionsLabel->show();

    const VxVersion current = d->host->currentVersion();
    QList<AutoUpdate::Version> list = d->autoUpdate->versions();

    QTableWidget* table = d->ui->versionTableWidget;
    table->clearContents();
    disconnect(table, &QTableWidget::cellClicked, this, nullptr);

    if (!(d->ui->betaCheckBox->isChecked() && d->host->allowBetaVersions()))
        list.erase(std::remove_if(list.begin(),
                       list.end(),
                       [](const AutoUpdate::Version& v) {
                           return v.beta;
                       }),
            list.end());

    bool currentIsBeta = false;
    for (const AutoUpdate::Version& version : qAsConst(list)) {
        if (compareVersions(AutoUpdate::fromInternalVersion(version.internalVersion), current) == 0) {
            currentIsBeta = version.beta;
            break;
        }
    }

    table->setRowCount(list.size());
    std::sort(list.begin(), list.end(), &AutoUpdate::displayLessThan);

    int selectRow = -1;
    const int count = list.size();
    for (int i = 0; i < count; ++i) {
        const AutoUpdate::Version& version = list.at(i);
        // Oldest at the bottom, newest at the top.
        const int row = count - 1 - i;

        auto* versionItem = new QTableWidgetItem(version.publicVersion);
        versionItem->setData(Qt::UserRole, version.internalVersion);
        table->setItem(row, 0, versionItem);
        const QDateTime date = QDateTime::fromMSecsSinceEpoch(version.date).toLocalTime();
        table->setItem(row, 2, new QTableWidgetItem(date.toString(tr("d MMM yyyy"))));
        table->setItem(row, 1, new QTableWidgetItem(version.releaseType));

        if (!version.infoLabel.isEmpty() && !version.infoUrl.isEmpty()) {
            auto* infoItem = new QTableWidgetItem(version.infoLabel);
            infoItem->setToolTip(tr("Click to open in a web browser"));
            QFont font = infoItem->font();
            font.setUnderline(true);
            infoItem->setFont(font);
            table->setItem(row, 4, infoItem);
            const QUrl infoUrl(version.infoUrl);
            connect(table, &QTableWidget::cellClicked, this, [row, infoUrl](int clickedRow, int clickedColumn) {
                if (clickedRow == row && clickedColumn == 4)
                    QDesktopServices::openUrl(infoUrl);
            });
        }

        const int order = compareVersions(AutoUpdate::fromInternalVersion(version.internalVersion), current);
        QString note;
        // The licence covers releases up to its date limit; none is set when the limit is 0 or less.
        if (d->licenseDateLimit > 0 && version.date > d->licenseDateLimit)
            note = tr("Current license does not allow running this version");
        else if (order == 0)
            note = tr("Current version");
        else if (order < 0)
            note = tr("Older than current");
        else
            note = tr("Newer than current");
        table->setItem(row, 3, new QTableWidgetItem(note));

        // Visiting oldest to newest, the newest qualifying release wins; a beta only when
        // nothing was chosen yet or the running version is itself a beta.
        if (order > 0 && (selectRow < 0 || currentIsBeta || !version.beta))
            selectRow = row;
    }

    if (selectRow >= 0)
        table->selectRow(selectRow);
    selectionChanged();

    if (d->autoUpdate->isNewVersionAvailable())
        d->ui->newVersionTextLabel->show();
}

void AutoUpdateWindow::reportUpdateFailure()
{
    d->ui->failureLabel->setText(tr("Failed to get version information from Veltrax update server at %1").arg(d->autoUpdate->serverString()));
    d->ui->failureLabel->show();
    d->ui->retrievingLabel->hide();
    d->ui->versionTableWidget->hide();
    d->ui->newVersionTextLabel->hide();
    // With the table gone its selection must not stay downloadable.
    selectionChanged();
}

void AutoUpdateWindow::selectionChanged()
{
    // Visible within this dialog, so that a selection made before the dialog is shown counts.
    QTableWidget* table = d->ui->versionTableWidget;
    d->ui->updatePushButton->setEnabled(!table->selectedItems().isEmpty() && table->isVisibleTo(this));
}

void AutoUpdateWindow::doUpdate()
{
    const QList<QTableWidgetItem*> selected = d->ui->versionTableWidget->selectedItems();
    if (selected.isEmpty())
        return;
    const QTableWidgetItem* versionItem = d->ui->versionTableWidget->item(selected.first()->row(), 0);
    if (!versionItem)
        return;
    d->autoUpdate->updateToVersion(versionItem->data(Qt::UserRole).toString(), d->host);
}

void AutoUpdateWindow::intervalChanged()
{
    if (d->ui->intervalCheckBox->isChecked()) {
        d->ui->updateIntervalSpinBox->setEnabled(true);
        Q_EMIT updateIntervalChanged(d->ui->updateIntervalSpinBox->value());
    } else {
        d->ui->updateIntervalSpinBox->setEnabled(false);
        Q_EMIT updateIntervalChanged(0);
    }
}

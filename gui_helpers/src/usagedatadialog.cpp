// SPDX-License-Identifier: MIT
#include "usagedatadialog.h"

#include "abstractusagestatisticssingleton.h"

#include <QCheckBox>
#include <QDialogButtonBox>
#include <QFile>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QListWidget>
#include <QLocale>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSplitter>
#include <QVBoxLayout>

namespace
{
// List entries keep the full path here; the text is the file name only.
const int PathRole = Qt::UserRole;
} // namespace

class UsageDataDialogPrivate
{
public:
    QPointer<AbstractUsageStatisticsSingleton> usage;
    QListWidget* logList = nullptr;
    QPlainTextEdit* logText = nullptr;
    QCheckBox* consent = nullptr;
    QLabel* lastSent = nullptr;
    QPushButton* deleteButton = nullptr;
};

UsageDataDialog::UsageDataDialog(AbstractUsageStatisticsSingleton* usage, QWidget* parent)
    : QDialog(parent)
    , d(new UsageDataDialogPrivate)
{
    d->usage = usage ? usage : AbstractUsageStatisticsSingleton::instance();
    setObjectName(QStringLiteral("UsageDataDialog"));
    setWindowTitle(tr("Usage Data"));

    auto* intro = new QLabel(tr("These anonymous usage logs are sent to the update server at most once a day. "
                                "This is exactly what would be sent next."),
        this);
    intro->setWordWrap(true);

    d->logList = new QListWidget(this);
    d->logList->setObjectName(QStringLiteral("usageLogList"));
    d->logText = new QPlainTextEdit(this);
    d->logText->setObjectName(QStringLiteral("usageLogText"));
    d->logText->setReadOnly(true);
    d->logText->setLineWrapMode(QPlainTextEdit::NoWrap);
    auto* splitter = new QSplitter(this);
    splitter->addWidget(d->logList);
    splitter->addWidget(d->logText);
    splitter->setStretchFactor(1, 3);
    splitter->setSizes({300, 460});

    // The about box's sentence, so the user recognises the choice made there.
    d->consent = new QCheckBox(tr("Allow Veltrax to gather and send anonymous usage statistics to improve your product"), this);
    d->consent->setObjectName(QStringLiteral("usageDataCheckbox"));
    d->lastSent = new QLabel(this);
    d->lastSent->setObjectName(QStringLiteral("lastSentLabel"));

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Close, this);
    d->deleteButton = buttons->addButton(tr("Delete collected data"), QDialogButtonBox::DestructiveRole);
    d->deleteButton->setObjectName(QStringLiteral("deleteCollectedDataButton"));

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(intro);
    layout->addWidget(splitter, 1);
    layout->addWidget(d->consent);
    layout->addWidget(d->lastSent);
    layout->addWidget(buttons);
    resize(760, 480);

    connect(buttons, &QDialogButtonBox::rejected, this, &QDialog::reject);
    connect(d->logList, &QListWidget::currentItemChanged, this, [this](QListWidgetItem* item) {
        QString text;
        const QString path = item ? item->data(PathRole).toString() : QString();
        QFile file(path);
        if (!path.isEmpty() && file.open(QIODevice::ReadOnly))
            text = QString::fromUtf8(file.readAll());
        d->logText->setPlainText(text);
    });
    connect(d->consent, &QCheckBox::toggled, this, [this](bool allow) {
        if (d->usage)
            d->usage->setAllowLogFilesForUser(allow);
        refresh();
    });
    connect(d->deleteButton, &QPushButton::clicked, this, [this] {
        if (d->usage)
            d->usage->deleteCollectedLogs();
        refresh();
    });
    refresh();
}

UsageDataDialog::~UsageDataDialog() = default;

void UsageDataDialog::refresh()
{
    AbstractUsageStatisticsSingleton* usage = d->usage;
    const bool policy = AbstractUsageStatisticsSingleton::disabledByPolicy();
    {
        const QSignalBlocker blocker(d->consent);
        d->consent->setChecked(usage && usage->allowLogFilesForUser());
    }
    d->consent->setEnabled(usage && !policy);
    d->consent->setToolTip(policy ? tr("Usage statistics are turned off by your organisation") : QString());

    const QString current = d->logList->currentItem() ? d->logList->currentItem()->data(PathRole).toString() : QString();
    d->logList->clear();
    const auto addSection = [this](const QString& title, const QStringList& paths) {
        auto* heading = new QListWidgetItem(title, d->logList);
        heading->setFlags(Qt::ItemIsEnabled); // a heading: readable, not selectable
        QFont bold = heading->font();
        bold.setBold(true);
        heading->setFont(bold);
        for (const QString& path : paths) {
            auto* item = new QListWidgetItem(QFileInfo(path).fileName(), d->logList);
            item->setData(PathRole, path);
        }
        if (paths.isEmpty())
            (new QListWidgetItem(tr("(none)"), d->logList))->setFlags(Qt::NoItemFlags);
    };
    const QStringList pending = usage ? usage->pendingLogFiles() : QStringList();
    const QStringList sent = usage ? usage->sentLogFiles() : QStringList();
    addSection(tr("To be sent"), pending);
    if (!sent.isEmpty())
        addSection(tr("Already sent"), sent);

    // Keep the log the user was reading; otherwise show the first.
    QListWidgetItem* select = nullptr;
    for (int i = 0; i < d->logList->count(); ++i) {
        QListWidgetItem* item = d->logList->item(i);
        if (item->data(PathRole).toString().isEmpty())
            continue;
        if (!select || item->data(PathRole).toString() == current)
            select = item;
        if (item->data(PathRole).toString() == current)
            break;
    }
    d->logList->setCurrentItem(select);
    if (!select)
        d->logText->clear();

    const QDate lastSent = usage ? usage->lastAcceptedSending() : QDate();
    d->lastSent->setText(lastSent.isValid() ? tr("The server last accepted usage data on %1.").arg(QLocale().toString(lastSent, QLocale::LongFormat))
                                            : tr("The server has not accepted any usage data yet."));
    d->deleteButton->setEnabled(usage && !(pending.isEmpty() && sent.isEmpty()));
}

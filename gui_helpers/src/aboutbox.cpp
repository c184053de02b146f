// SPDX-License-Identifier: MIT
#include "aboutbox.h"

#include "abstractusagestatisticssingleton.h"
#include "productinfo_p.h"
#include "ui_aboutbox.h"
#include "usagedatadialog.h"

#include <QClipboard>
#include <QCoreApplication>
#include <QDateTime>
#include <QGuiApplication>
#include <QHeaderView>
#include <QLabel>
#include <QLocale>
#include <QMetaMethod>
#include <QPixmap>
#include <QSignalBlocker>
#include <QTableWidget>
#include <QTextDocument>
#include <QTextEdit>
#include <QVBoxLayout>

namespace
{

// Rich-text templates of the labels. Hosts and translators see the texts, not these.
const char buildInfoTemplate[] = "<p><span style=\"font-size: 8pt; font-weight: 600;\">%1</span><br/>"
                                 "<span style=\"font-size: 7pt; font-weight: 600;\">%2</span></p><p></p>"
                                 "<p style=\"font-size: 8pt; font-weight: 600;\">%3</p>";
const char productTemplate[] = "<p style=\"font-size: 8pt;\">%1</p><p style=\"font-size: 10pt; font-weight: 600;\">%2</p>"
                               "<p><a href=\"%3\"><span style=\"font-size: 10pt; font-weight: 600;\">%3</span></a></p>";
const char makerLegalTemplate[] = "<p style=\"font-size: 8pt;\">%1</p><p style=\"font-size: 8pt;\">%2<a href=\"%3\">%4</a></p>";
const char makerTrademarkTemplate[] = "<html><head/><body><p style=\"font-size: 8pt; font-weight: 600;\">%1</p></body></html>";
const char policyTemplate[] = "<a href=\"%1\">%2</a>";
const char applicationTemplate[] = "<h1>%1 %2</h1>";
const char trademarkTemplate[] = "<p style=\"font-size: 8pt; font-weight: 600;\">%1</p>";
const char licensedNameTemplate[] = "<HTML><BODY>%1</BODY></HTML>";
const char licensedLicenseTemplate[] = "<HTML><BODY><a href=%1>%2</a></BODY></HTML>";

QString plainText(const QString& richText)
{
    QTextDocument document;
    document.setHtml(richText);
    return document.toPlainText();
}

QTableWidget* createComponentTable(QWidget* page, const QString& objectName, const QStringList& headers)
{
    auto* table = new QTableWidget(0, headers.size(), page);
    table->setObjectName(objectName);
    table->setHorizontalHeaderLabels(headers);
    table->setSelectionMode(QAbstractItemView::NoSelection);
    table->verticalHeader()->hide();
    table->horizontalHeader()->setStretchLastSection(true);
    table->horizontalHeader()->setMinimumSectionSize(150);
    auto* layout = new QVBoxLayout(page);
    layout->addWidget(table);
    return table;
}

// A cell the user can neither select nor edit.
QTableWidgetItem* createItem(const QString& text)
{
    auto* item = new QTableWidgetItem(text);
    item->setFlags(Qt::ItemIsEnabled);
    return item;
}

QLabel* createLinkLabel(const QString& text, const QString& objectName)
{
    auto* label = new QLabel(text);
    label->setObjectName(objectName);
    label->setTextFormat(Qt::RichText);
    label->setTextInteractionFlags(Qt::TextBrowserInteraction);
    label->setOpenExternalLinks(true);
    // Line the text up with the plain items of the other cells.
    label->setContentsMargins(4, 0, 4, 0);
    return label;
}

// Rows end with a line feed, columns are separated by a tab; labels give their visible text.
QString tableText(const QTableWidget* table)
{
    QString text;
    for (int row = 0; row < table->rowCount(); ++row) {
        if (row > 0)
            text += QLatin1Char('\n');
        for (int column = 0; column < table->columnCount(); ++column) {
            if (column > 0)
                text += QLatin1Char('\t');
            if (const auto* label = qobject_cast<const QLabel*>(table->cellWidget(row, column))) {
                const QString visible = plainText(label->text());
                if (!visible.isEmpty())
                    text += visible;
            } else if (const QTableWidgetItem* item = table->item(row, column)) {
                text += item->text();
            }
        }
    }
    return text + QLatin1Char('\n');
}

} // namespace

// ---------------------------------------------------------------------------------------------
// Pages

AboutBoxPage::AboutBoxPage(const QString& title, QWidget* parent)
    : QWidget(parent)
{
    setWindowTitle(title);
}

AboutBoxPage::~AboutBoxPage() = default;

EulaAboutPage::EulaAboutPage(QWidget* parent)
    : AboutBoxPage(defaultTitle(), parent)
    , m_textEdit(new QTextEdit(this))
{
    setObjectName(QStringLiteral("eulaAboutPage"));
    m_textEdit->setObjectName(QStringLiteral("eulaTextEdit"));
    m_textEdit->setAcceptRichText(true);
    m_textEdit->setReadOnly(true);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_textEdit);
}

EulaAboutPage::~EulaAboutPage() = default;

QString EulaAboutPage::defaultTitle()
{
    return tr("License Agreement");
}

void EulaAboutPage::setEulaText(const QString& text)
{
    m_textEdit->setHtml(text);
}

QString EulaAboutPage::copyToClipboard()
{
    return m_textEdit->toPlainText();
}

CustomComponentAboutPage::CustomComponentAboutPage(QWidget* parent)
    : AboutBoxPage(defaultTitle(), parent)
    , m_table(createComponentTable(this, QStringLiteral("customComponentsTableWidget"), {tr("Component"), tr("Version")}))
{
    setObjectName(QStringLiteral("customComponentAboutPage"));
}

CustomComponentAboutPage::~CustomComponentAboutPage() = default;

QString CustomComponentAboutPage::defaultTitle()
{
    return tr("Other Components");
}

void CustomComponentAboutPage::addComponent(const QString& name, const QString& version)
{
    const int row = m_table->rowCount();
    m_table->insertRow(row);
    m_table->setItem(row, 0, createItem(name));
    m_table->setItem(row, 1, createItem(version));
    m_table->resizeColumnsToContents();
}

QString CustomComponentAboutPage::copyToClipboard()
{
    return tableText(m_table);
}

LicensedComponentAboutPage::LicensedComponentAboutPage(QWidget* parent)
    : AboutBoxPage(defaultTitle(), parent)
    , m_table(createComponentTable(this, QStringLiteral("licensedComponentsTableWidget"), {tr("Component"), tr("Version"), tr("License/Author")}))
{
    setObjectName(QStringLiteral("licensedComponentAboutPage"));
}

LicensedComponentAboutPage::~LicensedComponentAboutPage() = default;

QString LicensedComponentAboutPage::defaultTitle()
{
    return tr("Licensed Components");
}

void LicensedComponentAboutPage::addComponent(const QString& name, const QString& version, const QString& license, const QString& licenseUrl)
{
    const int row = m_table->rowCount();
    m_table->insertRow(row);
    if (name.startsWith(QLatin1String("<a href"))) {
        m_table->setCellWidget(
            row, 0, createLinkLabel(QString::fromLatin1(licensedNameTemplate).arg(name), QStringLiteral("row%1LicensedComponentNameLabel").arg(row)));
    } else {
        m_table->setItem(row, 0, createItem(name));
    }
    m_table->setItem(row, 1, createItem(version));
    // Filled in two steps on purpose: existing hosts pass addresses that rely on it.
    m_table->setCellWidget(row,
        2,
        createLinkLabel(
            QString::fromLatin1(licensedLicenseTemplate).arg(licenseUrl).arg(license), QStringLiteral("row%1LicensedComponentLicenseLabel").arg(row)));
}

QString LicensedComponentAboutPage::copyToClipboard()
{
    return tableText(m_table);
}

// ---------------------------------------------------------------------------------------------
// About box

AboutBox::AboutBox(QWidget* parent, Qt::WindowFlags flags)
    : QDialog(parent, flags)
    , m_ui(new Ui_AboutBox)
{
    m_ui->setupUi(this);
    setProductName(QString());
    setApplicationSuffix(QString());
    addLicencedComponent(QStringLiteral("<a href=\"%1\">Qt</a>").arg(QLatin1String(productinfo::qtProjectUrl)),
        QLatin1String(productinfo::qtVersion),
        QLatin1String(productinfo::qtLicense),
        QLatin1String(productinfo::qtLicenseUrl));
    updateTrademarks();
    setWindowTitle(tr("About %1").arg(QCoreApplication::applicationName()));

    connect(m_ui->copyToClipboardPushButton, &QPushButton::clicked, this, &AboutBox::confirmationCopyToClipboard);
    connect(m_ui->checkForUpdatesPushButton, &QPushButton::clicked, this, &AboutBox::checkForUpdates);
    connect(m_ui->usageDataCheckbox, &QCheckBox::toggled, this, &AboutBox::allowUsageDataGathering);
    m_ui->checkForUpdatesPushButton->hide();
    m_ui->usageDataCheckbox->hide();
    m_ui->usageDataDetailsLabel->hide();
    connect(m_ui->usageDataDetailsLabel, &QLabel::linkActivated, this, [this] {
        Q_EMIT usageDataDetailsRequested();
        // A host that listens shows its own; otherwise the library's dialog opens.
        if (isSignalConnected(QMetaMethod::fromSignal(&AboutBox::usageDataDetailsRequested)))
            return;
        auto* dialog = new UsageDataDialog(AbstractUsageStatisticsSingleton::instance(), this);
        dialog->setAttribute(Qt::WA_DeleteOnClose);
        dialog->open();
    });

    // The maker's own sentences stand until the host supplies its trademark lines and product.
    m_ui->tradeMarkLabel->setText(QString::fromLatin1(makerTrademarkTemplate).arg(tr(productinfo::trademarkSentence)));
    m_ui->policyLabel->setText(QString::fromLatin1(policyTemplate).arg(QLatin1String(productinfo::privacyPolicyUrl), tr("Read our privacy policy")));
    m_ui->legalLabel->setText(QString::fromLatin1(makerLegalTemplate)
                                  .arg(tr(productinfo::developedBySentence),
                                      tr("Visit our website at "),
                                      QLatin1String(productinfo::makerWebsiteUrl),
                                      QLatin1String(productinfo::makerWebsiteText)));
    setCurrentSelection(0);
}

AboutBox::~AboutBox() = default;

void AboutBox::setLogo(const QPixmap& pixmap)
{
    m_ui->logoLabel->setPixmap(pixmap);
}

void AboutBox::setBuildInfo(const QString& build, const QString& revision, const QString& buildDate, const QString& buildDateFormat, int beta)
{
    QString version = QCoreApplication::applicationVersion();
    if (beta != 0)
        version = tr("%1 Beta").arg(version);
    const QString versionLine = tr("Version %1 build %2, rev %3. %4 bit").arg(version, build, revision, QString::number(64));

    const QDateTime date = QDateTime::fromString(buildDate, buildDateFormat);
    // An unparsable date yields the character whose code is the current year, as it always has.
    const QString year = date.isValid() ? QString::number(date.date().year()) : QString(QChar(QDate::currentDate().year()));
    const QString dateLine = tr("Build date: %1").arg(QLocale(QLocale::English, QLocale::UnitedStates).toString(date, QStringLiteral("ddd MMM dd yyyy")));
    const QString copyrightLine = tr("&copy; %1 %2").arg(year, QCoreApplication::organizationName());

    m_ui->buildInfoLabel->setText(QString::fromLatin1(buildInfoTemplate).arg(versionLine, dateLine, copyrightLine));
}

void AboutBox::setProductName(const QString& name)
{
    const QString product = name.isEmpty() ? QCoreApplication::applicationName() : name;
    const QString website = QStringLiteral("https://www.%1").arg(QCoreApplication::organizationDomain());
    // One argument at a time, as the label has always been filled.
    m_ui->legalLabel->setText(QString::fromLatin1(productTemplate)
                                  .arg(tr("%1 developed by %2").arg(product, QCoreApplication::organizationName()))
                                  .arg(tr("Visit our website at"))
                                  .arg(website));
}

void AboutBox::setApplicationSuffix(const QString& suffix)
{
    m_ui->applicationLabel->setText(QString::fromLatin1(applicationTemplate).arg(QCoreApplication::applicationName(), suffix));
}

void AboutBox::addTrademarkLine(const QString& line)
{
    if (line.isEmpty())
        return;
    m_trademarkLines.append(line);
    m_trademarkLines.removeDuplicates();
    updateTrademarks();
}

void AboutBox::updateTrademarks()
{
    const QString lineEnd = QStringLiteral("<br/>\n");
    QString text = tr("All rights reserved.") + lineEnd;
    for (const QString& line : qAsConst(m_trademarkLines))
        text += line + lineEnd;
    m_ui->tradeMarkLabel->setText(QString::fromLatin1(trademarkTemplate).arg(text));
}

template <typename Page> Page* AboutBox::findPage(const QString& title) const
{
    for (int i = 0; i < m_ui->tabWidget->count(); ++i) {
        if (m_ui->tabWidget->tabText(i) != title)
            continue;
        if (auto* page = qobject_cast<Page*>(m_ui->tabWidget->widget(i)))
            return page;
    }
    return nullptr;
}

void AboutBox::setEula(const QString& text)
{
    auto* page = findPage<EulaAboutPage>(EulaAboutPage::defaultTitle());
    if (!page) {
        page = new EulaAboutPage;
        m_ui->tabWidget->addTab(page, page->windowTitle());
    }
    page->setEulaText(text);
}

int AboutBox::addCustomPage(AboutBoxPage* page)
{
    if (!page)
        return -1;
    const int index = m_ui->tabWidget->insertTab(0, page, page->windowTitle());
    m_pages.append(page);
    return index;
}

void AboutBox::addComponent(const QString& name, const QString& version)
{
    auto* page = findPage<CustomComponentAboutPage>(CustomComponentAboutPage::defaultTitle());
    if (!page) {
        page = new CustomComponentAboutPage;
        addCustomPage(page);
    }
    page->addComponent(name, version);
}

void AboutBox::addLicencedComponent(const QString& name, const QString& version, const QString& license, const QString& licenseUrl)
{
    auto* page = findPage<LicensedComponentAboutPage>(LicensedComponentAboutPage::defaultTitle());
    if (!page) {
        page = new LicensedComponentAboutPage;
        addCustomPage(page);
    }
    page->addComponent(name, version, license, licenseUrl);
}

int AboutBox::findTabByName(const QString& name) const
{
    for (int i = 0; i < m_ui->tabWidget->count(); ++i) {
        if (m_ui->tabWidget->tabText(i) == name)
            return i;
    }
    return -1;
}

void AboutBox::setCurrentSelection(int index)
{
    m_ui->tabWidget->setCurrentIndex(index);
}

void AboutBox::setCurrentSelection(const QString& name)
{
    // The tab widget ignores -1, so an unknown name leaves the selection alone.
    setCurrentSelection(findTabByName(name));
}

void AboutBox::showCheckForUpdatesButton(bool show)
{
    m_ui->checkForUpdatesPushButton->setVisible(show);
}

void AboutBox::showUsageDataCheckbox(bool show, bool checked)
{
    static const char* const policyProperty = "gui_helpers_disabledByPolicy";
    if (AbstractUsageStatisticsSingleton::disabledByPolicy()) {
        // Not the user's choice, so no allowUsageDataGathering() for it.
        const QSignalBlocker blocker(m_ui->usageDataCheckbox);
        m_ui->usageDataCheckbox->setChecked(false);
        m_ui->usageDataCheckbox->setEnabled(false);
        m_ui->usageDataCheckbox->setToolTip(tr("Usage statistics are turned off by your organisation"));
        m_ui->usageDataCheckbox->setProperty(policyProperty, true);
    } else {
        // Undo only what the policy did: a host may have disabled the box for reasons of its own.
        if (m_ui->usageDataCheckbox->property(policyProperty).toBool()) {
            m_ui->usageDataCheckbox->setEnabled(true);
            m_ui->usageDataCheckbox->setToolTip(QString());
            m_ui->usageDataCheckbox->setProperty(policyProperty, false);
        }
        m_ui->usageDataCheckbox->setChecked(checked);
    }
    m_ui->usageDataCheckbox->setVisible(show);
}

void AboutBox::showUsageDataDetailsLink(bool show)
{
    m_ui->usageDataDetailsLabel->setVisible(show);
}

void AboutBox::confirmationCopyToClipboard()
{
    const QLatin1Char lineEnd('\n');
    QString text = tr("Software Information:") + lineEnd;
    for (const QLabel* label : {m_ui->applicationLabel, m_ui->buildInfoLabel, m_ui->legalLabel})
        text += plainText(label->text()) + lineEnd;
    text += lineEnd;
    text += lineEnd;

    const auto appendPage = [&text, lineEnd](AboutBoxPage* page) {
        text += page->windowTitle() + QLatin1Char(':') + lineEnd;
        text += page->copyToClipboard() + lineEnd + lineEnd;
    };
    for (AboutBoxPage* page : qAsConst(m_pages)) {
        if (page)
            appendPage(page);
    }
    const int eulaIndex = findTabByName(EulaAboutPage::defaultTitle());
    if (auto* eula = qobject_cast<AboutBoxPage*>(m_ui->tabWidget->widget(eulaIndex)))
        appendPage(eula);

    QGuiApplication::clipboard()->setText(text, QClipboard::Clipboard);
}

// SPDX-License-Identifier: MIT
//
// The application's "About" dialog and the pages of its tab widget.
//
// The box shows the product name, version and build information, copyright and trademark
// lines, the maker's privacy-policy link and a tab widget with pages: the licence agreement,
// the other components, the licensed components (always listing Qt) and any page the host
// adds. "Copy To Clipboard" puts all of it on the clipboard as plain text, for support
// requests.
#pragma once

#include "gui_helpers_export.h"

#include <QDialog>
#include <QList>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QWidget>

#include <memory>

class QPixmap;
class QTableWidget;
class QTextEdit;
class Ui_AboutBox;

/**
 * A tab page of the about box. The page's window title is its tab text. Derive from it to add
 * a page of your own kind; copyToClipboard() gives the page's content as plain text for the
 * about box's clipboard copy.
 */
class GUI_HELPERS_EXPORT AboutBoxPage : public QWidget
{
    Q_OBJECT
    Q_DISABLE_COPY(AboutBoxPage)
public:
    /** Pages are created without a parent; the about box's tab widget takes them over. */
    explicit AboutBoxPage(const QString& title, QWidget* parent = nullptr);
    ~AboutBoxPage() override;

    /** The page's content as plain text. */
    virtual QString copyToClipboard() = 0;
};

/**
 * The licence agreement page: the agreement as rich text in a read-only editor. Read-only
 * because the text is the maker's agreement, not something the user should change; selecting
 * and copying it still works.
 */
class GUI_HELPERS_EXPORT EulaAboutPage : public AboutBoxPage
{
    Q_OBJECT
    Q_DISABLE_COPY(EulaAboutPage)
public:
    explicit EulaAboutPage(QWidget* parent = nullptr);
    ~EulaAboutPage() override;

    /** The page's title, "License Agreement" (translated); the about box finds the page by it. */
    static QString defaultTitle();

    /** Shows @p text, interpreted as HTML. */
    void setEulaText(const QString& text);
    /** The agreement as plain text. */
    QString copyToClipboard() override;

private:
    QTextEdit* m_textEdit;
};

/**
 * Table of the other components (name and version) that the application ships.
 * copyToClipboard() gives one line per row, the columns separated by a tab, and a final line
 * feed ("a\t1\nb\t2\n"); an empty table gives "\n".
 */
class GUI_HELPERS_EXPORT CustomComponentAboutPage : public AboutBoxPage
{
    Q_OBJECT
    Q_DISABLE_COPY(CustomComponentAboutPage)
public:
    explicit CustomComponentAboutPage(QWidget* parent = nullptr);
    ~CustomComponentAboutPage() override;

    /** The page's title, "Other Components" (translated). */
    static QString defaultTitle();

    /** Appends a row and fits the columns to their contents. */
    void addComponent(const QString& name, const QString& version);
    QString copyToClipboard() override;

private:
    QTableWidget* m_table;
};

/**
 * Table of the licensed components with links to their licences. A name that starts with
 * "<a href" is shown as a clickable rich-text label; the licence is always a link to
 * @p licenseUrl. Links open in the desktop's browser. The clipboard text has the layout of
 * CustomComponentAboutPage's, with labels reduced to their visible text.
 */
class GUI_HELPERS_EXPORT LicensedComponentAboutPage : public AboutBoxPage
{
    Q_OBJECT
    Q_DISABLE_COPY(LicensedComponentAboutPage)
public:
    explicit LicensedComponentAboutPage(QWidget* parent = nullptr);
    ~LicensedComponentAboutPage() override;

    /** The page's title, "Licensed Components" (translated). */
    static QString defaultTitle();

    /**
     * Appends a row. The labels of row r are named "row<r>LicensedComponentNameLabel" and
     * "row<r>LicensedComponentLicenseLabel". The licence link is filled from its template in
     * two steps, address first, so a "%2" inside @p licenseUrl is replaced by @p license too.
     */
    void addComponent(const QString& name, const QString& version, const QString& license, const QString& licenseUrl);
    QString copyToClipboard() override;

private:
    QTableWidget* m_table;
};

/**
 * The "About" dialog. Create it, fill it with the setters, then show it. Until the host calls
 * the setters the box shows the maker's own sentences: the trademark notice until the first
 * addTrademarkLine(), the "developed by" line and web address until setProductName().
 *
 * Pages are found by their tab text. addComponent(), addLicencedComponent() and setEula() use
 * the first tab with the page kind's title that holds a page of that kind, and create one when
 * there is none.
 *
 * Kept on purpose: the built-in Qt row of "Licensed Components" names Qt 5.14.0, the
 * release the licence notice was written for, whatever Qt the host runs on; a build date
 * that does not parse leaves the date empty and the copyright "year" is then the single
 * character whose code is the current year.
 */
class GUI_HELPERS_EXPORT AboutBox : public QDialog
{
    Q_OBJECT
    Q_DISABLE_COPY(AboutBox)
public:
    explicit AboutBox(QWidget* parent = nullptr, Qt::WindowFlags flags = {});
    ~AboutBox() override;

    void setLogo(const QPixmap& pixmap);

    /**
     * Shows the version line (QCoreApplication::applicationVersion(), with " Beta" when @p beta
     * is non-zero), the build date parsed from @p buildDate with @p buildDateFormat and shown in
     * US English ("Tue Mar 05 2024"), and the copyright line with the build year and
     * QCoreApplication::organizationName(). A date that does not parse leaves the date empty,
     * and the copyright "year" is then the single character whose code is the current year;
     * hosts rely on the text as it has always been, so this stays.
     */
    void setBuildInfo(const QString& build, const QString& revision, const QString& buildDate, const QString& buildDateFormat, int beta);

    /**
     * Shows "<name> developed by <organisation>" and a link to https://www. followed by
     * QCoreApplication::organizationDomain(). An empty @p name stands for the application name.
     */
    void setProductName(const QString& name);
    /** Heading: the application name followed by @p suffix. */
    void setApplicationSuffix(const QString& suffix);

    /** Adds a line under "All rights reserved."; empty lines and repeats are ignored. */
    void addTrademarkLine(const QString& line);
    /** Rebuilds the trademark label from the lines added so far. */
    void updateTrademarks();

    /** Shows @p text (HTML) on the "License Agreement" page, the last tab, creating it on first use. */
    void setEula(const QString& text);
    /** Inserts @p page as the first tab and lists it in the clipboard copy. Returns its index, or -1 for a null page. */
    int addCustomPage(AboutBoxPage* page);
    /** Adds a row to the "Other Components" page, creating the page on first use. */
    void addComponent(const QString& name, const QString& version);
    /** Adds a row to the "Licensed Components" page (see LicensedComponentAboutPage::addComponent). */
    void addLicencedComponent(const QString& name, const QString& version, const QString& license, const QString& licenseUrl);

    /** Index of the first tab whose text equals @p name exactly, or -1. */
    int findTabByName(const QString& name) const;
    void setCurrentSelection(int index);
    /** Selects the tab named @p name; an unknown name leaves the selection as it is. */
    void setCurrentSelection(const QString& name);

    /** The "Check for Updates" button is hidden until shown here. */
    void showCheckForUpdatesButton(bool show);
    /**
     * Sets the usage-data check box (emitting allowUsageDataGathering() if that changes it) and
     * its visibility. While the organisation has switched usage statistics off
     * (AbstractUsageStatisticsSingleton::disabledByPolicy()) the box is unchecked and disabled
     * whatever @p checked says, with a tooltip saying why, and emits nothing.
     */
    void showUsageDataCheckbox(bool show, bool checked);
    /**
     * Shows or hides the "What is sent?" link beside the usage-data check box (hidden until
     * shown here). Following it emits usageDataDetailsRequested(); when nothing is connected
     * to that signal, a UsageDataDialog for AbstractUsageStatisticsSingleton::instance() opens.
     */
    void showUsageDataDetailsLink(bool show);

public Q_SLOTS:
    /** Puts the software information and the pages' contents on the clipboard as plain text. */
    void confirmationCopyToClipboard();

Q_SIGNALS:
    /** The user clicked "Check for Updates". */
    void checkForUpdates();
    /** The usage-data check box changed to @p allow. */
    void allowUsageDataGathering(bool allow);
    /** The user followed the "What is sent?" link (see showUsageDataDetailsLink()). */
    void usageDataDetailsRequested();

private:
    template <typename Page> Page* findPage(const QString& title) const;

    std::unique_ptr<Ui_AboutBox> const m_ui;
    // Guarded: a host may delete a page it added, and the clipboard copy must skip it then.
    QList<QPointer<AboutBoxPage>> m_pages;
    QStringList m_trademarkLines;
};

// SPDX-License-Identifier: MIT
#include "journalview.h"

#include "journaller.h"
#include "timeconversions.h"

#include <QFontDatabase>
#include <QPointer>

#include <mutex>

namespace
{

/** Lives for the whole process, so a thread that is logging never meets a dead logger. */
class JournalForwarder : public AbstractAdditionalLogger
{
public:
    bool wantsLevel(JournalLogLevel level) const override { return level >= JLL_DEBUG; }

    void log(JournalLogLevel level, int, const char*, const std::string& message) override
    {
        const QString line = QStringLiteral("%1 %2%3").arg(xqLogTime(), QString::fromLatin1(journalLevelText(level)), QString::fromStdString(message));
        std::lock_guard<std::mutex> lock(m_mutex);
        if (JournalView* view = m_view.data()) {
            QMetaObject::invokeMethod(
                view,
                [view, line] {
                    view->appendPlainText(line);
                },
                Qt::QueuedConnection);
        } else {
            // Kept until a view exists, so it does not start empty.
            if (m_backlog.size() >= 200)
                m_backlog.removeFirst();
            m_backlog.append(line);
        }
    }

    void attach(JournalView* view)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_view = view;
        for (const QString& line : qAsConst(m_backlog))
            view->appendPlainText(line);
        m_backlog.clear();
    }
    void detach(JournalView* view)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_view == view)
            m_view = nullptr;
    }

private:
    std::mutex m_mutex;
    QPointer<JournalView> m_view;
    QStringList m_backlog;
};

JournalForwarder& forwarder()
{
    static JournalForwarder instance;
    return instance;
}

} // namespace

JournalView::JournalView(QWidget* parent)
    : QPlainTextEdit(parent)
{
    setReadOnly(true);
    setMaximumBlockCount(500);
    QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    font.setPointSizeF(font.pointSizeF() * 0.85);
    setFont(font);
    forwarder().attach(this);
}

JournalView::~JournalView()
{
    forwarder().detach(this);
}

void JournalView::installForwarder()
{
    Journaller::setAdditionalLogger(&forwarder());
}

void JournalView::removeForwarder()
{
    Journaller::setAdditionalLogger(nullptr);
}

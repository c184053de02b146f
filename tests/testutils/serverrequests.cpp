// SPDX-License-Identifier: MIT
#include "serverrequests.h"

#include <QTest>

PendingReply::PendingReply(ServerRequest* request)
{
    connect(request, &ServerRequest::reply, this, [this](const veltrax::SettingsFile& tree) {
        m_tree = tree;
        m_received = true;
    });
    request->start();
}

bool PendingReply::wait(int timeoutMs)
{
    return QTest::qWaitFor(
        [this] {
            return m_received;
        },
        timeoutMs);
}

veltrax::SettingsFile textTree(std::initializer_list<std::pair<std::string, std::string>> settings)
{
    veltrax::SettingsFile tree;
    for (const auto& setting : settings)
        tree.setSetting(setting.first, veltrax::Variant(setting.second));
    return tree;
}

QString treeDifference(const veltrax::SettingsFile& actual, const veltrax::SettingsFile& expected)
{
    const auto a = actual.flattened();
    const auto e = expected.flattened();
    for (size_t i = 0; i < a.size() || i < e.size(); ++i) {
        if (i >= a.size())
            return QStringLiteral("missing %1").arg(QString::fromStdString(e[i].first));
        if (i >= e.size())
            return QStringLiteral("unexpected %1").arg(QString::fromStdString(a[i].first));
        if (a[i].first != e[i].first)
            return QStringLiteral("%1 where %2 was expected").arg(QString::fromStdString(a[i].first), QString::fromStdString(e[i].first));
        if (!(a[i].second == e[i].second))
            return QStringLiteral("other value of %1").arg(QString::fromStdString(a[i].first));
    }
    return QString();
}

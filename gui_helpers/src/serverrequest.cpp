// SPDX-License-Identifier: MIT
#include "serverrequest.h"

#include "journaller.h"
#include "updateservercomm.h"
#include "updateservercomm_p.h"
#include "usagestatisticsdata_p.h"

#include <exception>
#include <utility>

namespace
{
QByteArray requestLine(const char* word, const QString& id, const QString& mask)
{
    return QStringLiteral("%1 %2 %3\n").arg(QLatin1String(word), id, mask).toLatin1();
}

QByteArray requestLine(const char* word, const QString& id, const QString& mask, const QString& version)
{
    return QStringLiteral("%1 %2 %3 %4\n").arg(QLatin1String(word), id, mask, version).toLatin1();
}

const char* const kTerminated = "Terminated";
const char* const kUsageTerminated = "Sending of usage statistics was terminated by a T-800. Hasta la vista, baby";

// The look-ups without a version ignore the one ServerLookupRequest keeps for them.
template <veltrax::SettingsFile (UpdateServerComm::*Method)(const QString&, const QString&)>
veltrax::SettingsFile idAndMask(UpdateServerComm& comm, const QString& id, const QString& mask, const QString&)
{
    return (comm.*Method)(id, mask);
}

template <veltrax::SettingsFile (UpdateServerComm::*Method)(const QString&, const QString&, const QString&)>
veltrax::SettingsFile idMaskAndVersion(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version)
{
    return (comm.*Method)(id, mask, version);
}
} // namespace

// The connection's request operations: the request lines, and the blocking calls made of them.

void UpdateServerComm::queueList(const QString& id, const QString& mask)
{
    d->postToSocket(requestLine(updateserver::LIST, id, mask));
}

void UpdateServerComm::queueList2(const QString& id, const QString& mask)
{
    d->postToSocket(requestLine(updateserver::LIST2, id, mask));
}

void UpdateServerComm::queueGet(const QString& id, const QString& mask, const QString& version)
{
    d->postToSocket(requestLine(updateserver::GET, id, mask, version));
}

void UpdateServerComm::queueGet2(const QString& id, const QString& mask, const QString& version)
{
    d->postToSocket(requestLine(updateserver::GET2, id, mask, version));
}

void UpdateServerComm::queueGetProductKey(const QString& id, const QString& mask)
{
    d->postToSocket(requestLine(updateserver::PRODUCTKEY, id, mask));
}

void UpdateServerComm::queueGetCustomerInfo(const QString& id, const QString& mask)
{
    d->postToSocket(requestLine(updateserver::CUSTOMERINFO, id, mask));
}

veltrax::SettingsFile UpdateServerComm::list(const QString& id, const QString& mask)
{
    return d->blockingRequest("list", updateserver::LIST, {&id, &mask}, kTerminated, [&] {
        queueList(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::list2(const QString& id, const QString& mask)
{
    return d->blockingRequest("list2", updateserver::LIST2, {&id, &mask}, kTerminated, [&] {
        queueList2(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::get(const QString& id, const QString& mask, const QString& version)
{
    return d->blockingRequest("get", updateserver::GET, {&id, &mask, &version}, kTerminated, [&] {
        queueGet(id, mask, version);
    });
}

veltrax::SettingsFile UpdateServerComm::get2(const QString& id, const QString& mask, const QString& version)
{
    return d->blockingRequest("get2", updateserver::GET2, {&id, &mask, &version}, kTerminated, [&] {
        queueGet2(id, mask, version);
    });
}

veltrax::SettingsFile UpdateServerComm::getProductKey(const QString& id, const QString& mask)
{
    return d->blockingRequest("getProductKey", updateserver::PRODUCTKEY, {&id, &mask}, kTerminated, [&] {
        queueGetProductKey(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::getCustomerInfo(const QString& id, const QString& mask)
{
    return d->blockingRequest("getCustomerInfo", updateserver::CUSTOMERINFO, {&id, &mask}, kTerminated, [&] {
        queueGetCustomerInfo(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::prepAndSendUsageDataAndHandleReply(const QString& path, const QString& pattern)
{
    // The logs are read only once the lock is held, so a sending that waited for it sends what is there then.
    return d->blockingRequest("prepAndSendUsageDataAndHandleReply", updateserver::USAGE, {}, kUsageTerminated, [&] {
        queueSendingOfUsageData(usagestatistics::usageRecord(usagestatistics::collectFinishedLogs(path, pattern)));
    });
}

// The request threads.

ServerRequest::ServerRequest(UpdateServerComm& comm, QObject* parent)
    : QThread(parent)
    , m_result(new veltrax::SettingsFile)
    , m_comm(comm)
{
    setObjectName(QStringLiteral("ServerRequest"));
    m_comm.incRequests();
    connect(this, &QThread::finished, this, &QObject::deleteLater);
}

ServerRequest::~ServerRequest()
{
    // Normally deleted after finished(). When a parent deletes it earlier, its thread is at
    // most a few instructions from the end (the connection's destructor waited for it), and
    // a QThread must not be destroyed while it runs.
    if (isRunning() && QThread::currentThread() != this)
        wait(5000);
}

void ServerRequest::run()
{
    // Nothing may escape a thread; without a result there is nothing to report but the log line.
    try {
        doRequest();
        Q_EMIT reply(*m_result);
    } catch (const std::exception& error) {
        JLOG_TO(UpdateServerComm::journaller(), "run", JLL_ERROR, "Request failed: " << error.what());
    } catch (...) {
        JLOG_TO(UpdateServerComm::journaller(), "run", JLL_ERROR, "Request failed with an unknown exception");
    }
    m_comm.decRequests();
}

ServerLookupRequest::ServerLookupRequest(UpdateServerComm& comm, Call call, const QString& id, const QString& mask, const QString& version, QObject* parent)
    : ServerRequest(comm, parent)
    , m_id(id)
    , m_mask(mask)
    , m_version(version)
    , m_call(std::move(call))
{
}

void ServerLookupRequest::doRequest()
{
    *m_result = m_call(m_comm, m_id, m_mask, m_version);
}

ServerListRequest::ServerListRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, idAndMask<&UpdateServerComm::list>, id, mask, QString(), parent)
{
}

ServerList2Request::ServerList2Request(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, idAndMask<&UpdateServerComm::list2>, id, mask, QString(), parent)
{
}

ServerGetRequest::ServerGetRequest(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent)
    : ServerLookupRequest(comm, idMaskAndVersion<&UpdateServerComm::get>, id, mask, version, parent)
{
}

ServerGet2Request::ServerGet2Request(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent)
    : ServerLookupRequest(comm, idMaskAndVersion<&UpdateServerComm::get2>, id, mask, version, parent)
{
}

ServerGetProductKeyRequest::ServerGetProductKeyRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, idAndMask<&UpdateServerComm::getProductKey>, id, mask, QString(), parent)
{
}

ServerGetCustomerDetailsRequest::ServerGetCustomerDetailsRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, idAndMask<&UpdateServerComm::getCustomerInfo>, id, mask, QString(), parent)
{
}

SendUsageDataToServer::SendUsageDataToServer(UpdateServerComm& comm, const QString& logFilePath, const QString& pattern, QObject* parent)
    : ServerRequest(comm, parent)
    , m_logFilePath(logFilePath)
    , m_pattern(pattern)
{
}

void SendUsageDataToServer::doRequest()
{
    *m_result = m_comm.prepAndSendUsageDataAndHandleReply(m_logFilePath, m_pattern);
}

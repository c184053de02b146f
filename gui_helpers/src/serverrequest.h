// SPDX-License-Identifier: MIT
//
// Blocking update-server requests, each run on a thread of its own.
#pragma once

#include "gui_helpers_export.h"
#include "settingsfile.h"

#include <QObject>
#include <QString>
#include <QThread>

#include <functional>
#include <memory>

class UpdateServerComm;

/**
 * One blocking request on a thread of its own. The caller creates it, connects to reply()
 * and calls start(); the reply arrives queued on the receiver's thread and the object then
 * deletes itself. While it lives it holds one unit of the connection's request count.
 */
class GUI_HELPERS_EXPORT ServerRequest : public QThread
{
    Q_OBJECT
public:
    ServerRequest(UpdateServerComm& comm, QObject* parent = nullptr);
    ~ServerRequest() override;

Q_SIGNALS:
    /** The reply, error or empty tree; emitted on the request's thread. Not emitted if doRequest() threw (that is logged). */
    void reply(const veltrax::SettingsFile& settings);

protected:
    void run() override;
    /** Fills m_result; runs on the request's thread. */
    virtual void doRequest() = 0;

    std::unique_ptr<veltrax::SettingsFile> m_result;
    UpdateServerComm& m_comm;

    Q_DISABLE_COPY(ServerRequest)
};

/**
 * A look-up: one of the connection's blocking calls, with an id, a mask and, for the GET
 * forms, a version. Each named request below only chooses the call.
 */
class GUI_HELPERS_EXPORT ServerLookupRequest : public ServerRequest
{
    Q_OBJECT
protected:
    using Call = std::function<veltrax::SettingsFile(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version)>;

    ServerLookupRequest(UpdateServerComm& comm, Call call, const QString& id, const QString& mask, const QString& version, QObject* parent);
    void doRequest() override;

    const QString m_id;
    const QString m_mask;
    const QString m_version;

private:
    const Call m_call;
};

/** LIST id mask. */
class GUI_HELPERS_EXPORT ServerListRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerListRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);
};

/** LIS2T id mask. */
class GUI_HELPERS_EXPORT ServerList2Request : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerList2Request(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);
};

/** GET id mask version (see UpdateServerComm::get()). */
class GUI_HELPERS_EXPORT ServerGetRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGetRequest(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent = nullptr);
};

/** GE2T id mask version. */
class GUI_HELPERS_EXPORT ServerGet2Request : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGet2Request(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent = nullptr);
};

/** PRODUCTKEY id mask (see UpdateServerComm::getProductKey()). */
class GUI_HELPERS_EXPORT ServerGetProductKeyRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGetProductKeyRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);
};

/** CUSTOMERINFO id mask (see UpdateServerComm::getCustomerInfo()). */
class GUI_HELPERS_EXPORT ServerGetCustomerDetailsRequest : public ServerLookupRequest
{
    Q_OBJECT
public:
    ServerGetCustomerDetailsRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent = nullptr);
};

/** Sends the closed usage logs beside @p logFilePath whose names contain @p pattern. */
class GUI_HELPERS_EXPORT SendUsageDataToServer : public ServerRequest
{
    Q_OBJECT
public:
    SendUsageDataToServer(UpdateServerComm& comm, const QString& logFilePath, const QString& pattern, QObject* parent = nullptr);

protected:
    void doRequest() override;

private:
    QString m_logFilePath;
    QString m_pattern;
};

// SPDX-License-Identifier: MIT
#include "updateservercomm.h"

#include "journaller.h"
#include "updateserverresponseparser.h"
#include "variant.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSslCipher>
#include <QSslConfiguration>

#include <limits>
#include <string>

// Qt's event queue hands a posted event to the owner thread through locks that are not
// instrumented, so ThreadSanitizer would take the event's contents for a race. Tell it.
#if defined(__SANITIZE_THREAD__)
#define GUI_HELPERS_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define GUI_HELPERS_TSAN 1
#endif
#endif
#ifdef GUI_HELPERS_TSAN
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
#define TSAN_RELEASE(address) __tsan_release(address)
#define TSAN_ACQUIRE(address) __tsan_acquire(address)
#else
#define TSAN_RELEASE(address) ((void)(address))
#define TSAN_ACQUIRE(address) ((void)(address))
#endif

namespace
{

std::atomic<Journaller*> s_journaller {nullptr};
std::atomic<bool> s_journallerSet {false};

#define COMM_LOG(level, function, text) JLOG_TO(UpdateServerComm::journaller(), function, level, text)

veltrax::Variant textValue(const QString& text)
{
    return veltrax::Variant(text.toStdString());
}

/** The locally made answer to a failed request. */
veltrax::SettingsFile errorTree(const QString& message, const char* command, const QString* id, const QString* mask, const QString* version)
{
    using namespace updateserver;
    const std::string section = std::string(ERROR_SECTION) + '.';
    veltrax::SettingsFile tree;
    tree.setSetting(section + ERROR_MESSAGE_SETTING, textValue(message));
    tree.setSetting(section + ERROR_COMMAND_SETTING, veltrax::Variant(command));
    if (id)
        tree.setSetting(section + ERROR_ID_SETTING, textValue(*id));
    if (mask)
        tree.setSetting(section + ERROR_MASK_SETTING, textValue(*mask));
    if (version)
        tree.setSetting(section + ERROR_VERSION_SETTING, textValue(*version));
    return tree;
}

QByteArray requestLine(const char* word, const QString& id, const QString& mask)
{
    return QStringLiteral("%1 %2 %3\n").arg(QLatin1String(word), id, mask).toLatin1();
}

QByteArray requestLine(const char* word, const QString& id, const QString& mask, const QString& version)
{
    return QStringLiteral("%1 %2 %3 %4\n").arg(QLatin1String(word), id, mask, version).toLatin1();
}

/** Largest reply body accepted (1 GiB); a longer one breaks the connection. */
constexpr size_t kMaxReplySize = size_t(1) << 30;

const char* const kCouldNotConnect = "Could not connect to update server";
const char* const kCertificateFailed = "Certificate verification failed (SSL error)\n";
const char* const kTerminated = "Terminated";
const char* const kOwnThread = "Blocking request on the connection's own thread";
const char* const kUsageTerminated = "Sending of usage statistics was terminated by a T-800. Hasta la vista, baby";

} // namespace

UpdateServerComm::UpdateServerComm(QObject* parent, const UpdateServerOptions& options)
    : QObject(parent)
    , m_replyTree(new veltrax::SettingsFile)
    , m_options(options)
{
    qRegisterMetaType<veltrax::SettingsFile>("veltrax::SettingsFile");
    qRegisterMetaType<size_t>("size_t");
    tryToConnectToServer();
}

UpdateServerComm::~UpdateServerComm()
{
    m_terminated.store(true);
    // Request threads notice the flag within a few milliseconds and lower the count.
    while (m_requests.load() >= 1 && m_socket)
        QThread::msleep(10);
    if (m_socket) {
        QSslSocket* socket = m_socket;
        {
            std::lock_guard<std::mutex> guard(m_stateMutex);
            m_socket = nullptr;
        }
        socket->disconnect(this);
        if (socket->isOpen())
            socket->close();
        socket->deleteLater();
    }
}

void UpdateServerComm::setJournaller(Journaller* journaller)
{
    s_journaller.store(journaller);
    s_journallerSet.store(true);
}

Journaller* UpdateServerComm::journaller()
{
    return s_journallerSet.load() ? s_journaller.load() : gJournal;
}

void UpdateServerComm::tryToConnectToServer()
{
    if (m_socket) {
        const QAbstractSocket::SocketState state = m_socket->state();
        // QSslSocket keeps saying it is encrypted after the peer has closed: only a socket
        // that is not yet unconnected still counts, or a dropped connection never comes back.
        if ((m_socket->isEncrypted() && state != QAbstractSocket::UnconnectedState) || state == QAbstractSocket::HostLookupState
            || state == QAbstractSocket::ConnectingState || state == QAbstractSocket::ConnectedState)
            return;
    }

    auto* socket = new QSslSocket(this);
    QSslSocket* previous = nullptr;
    {
        std::lock_guard<std::mutex> guard(m_stateMutex);
        previous = m_socket;
        m_socket = socket;
        m_handshakeErrors.clear();
    }
    if (previous) {
        // Its last signals (a final state change while it is torn down) are no news.
        previous->disconnect(this);
        previous->deleteLater();
    }
    m_encrypted.store(false);

    QSslConfiguration config = socket->sslConfiguration();
    config.setCiphers(QSslConfiguration::supportedCiphers());
    socket->setSslConfiguration(config);

    connect(socket, &QSslSocket::readyRead, this, &UpdateServerComm::handleIncomingData);
    connect(socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), this, &UpdateServerComm::handleServerSocketSslErrors);
    connect(socket, &QAbstractSocket::stateChanged, this, &UpdateServerComm::handleSocketStateChanged);
    connect(socket, &QSslSocket::modeChanged, this, &UpdateServerComm::handleSocketModeChanged);
    connect(socket, &QSslSocket::encrypted, this, [this, socket] {
        if (socket == m_socket)
            m_encrypted.store(true);
    });

    m_serverAddress = m_options.serverAddress;
    m_serverPort = m_options.port;
    m_receiveBuffer.clear();
    m_readOffset = 0;
    m_awaitedSize = 0;
    // A request polling meanwhile must see an attempt under way, not a failure.
    m_lastState.store(QAbstractSocket::HostLookupState);
    socket->connectToHostEncrypted(m_serverAddress, static_cast<quint16>(m_serverPort), QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
}

std::pair<bool, QList<QSslError>> UpdateServerComm::waitForConnection()
{
    // The state is mirrored in atomics by the owning thread's slots, so this poll never
    // touches the socket from the wrong thread.
    while (!m_terminated.load()) {
        if (m_encrypted.load())
            return {true, {}};
        switch (m_lastState.load()) {
        case QAbstractSocket::HostLookupState:
        case QAbstractSocket::ConnectingState:
        case QAbstractSocket::ConnectedState:
            // 100 ms between looks, in slices so that terminate() is noticed quickly.
            for (int slice = 0; slice < 10 && !m_terminated.load() && !m_encrypted.load(); ++slice)
                QThread::msleep(10);
            break;
        default: {
            std::lock_guard<std::mutex> guard(m_stateMutex);
            return {false, m_handshakeErrors};
        }
        }
    }
    return {false, {}};
}

QString UpdateServerComm::serverString() const
{
    return QStringLiteral("%1:%2").arg(m_serverAddress).arg(m_serverPort);
}

QString UpdateServerComm::generateSslErrorMessage(const QList<QSslError>& errors) const
{
    QString text;
    for (const QSslError& error : errors)
        text += error.errorString() + QLatin1Char('\n');
    return text;
}

void UpdateServerComm::terminate()
{
    m_terminated.store(true);
}

void UpdateServerComm::incRequests()
{
    m_requests.fetch_add(1);
}

void UpdateServerComm::decRequests()
{
    m_requests.fetch_sub(1);
}

bool UpdateServerComm::event(QEvent* event)
{
    if (event->type() != SendEvent::EventType)
        return QObject::event(event);
    auto* send = static_cast<SendEvent*>(event);
    TSAN_ACQUIRE(send);
    // Only the current socket is known to be alive; an event for a replaced one is dropped.
    if (send->socket() && send->socket() == m_socket) {
        m_socket->write(send->data());
        m_socket->flush();
    } else {
        COMM_LOG(JLL_ALERT, "event", QStringLiteral("Dropped %1 bytes for a socket that is gone").arg(send->data().size()));
    }
    event->accept();
    return true;
}

void UpdateServerComm::postToSocket(const QByteArray& data)
{
    QSslSocket* socket;
    {
        std::lock_guard<std::mutex> guard(m_stateMutex);
        socket = m_socket;
    }
    auto* event = new SendEvent(socket, data);
    TSAN_RELEASE(event);
    QCoreApplication::postEvent(this, event, Qt::NormalEventPriority);
}

void UpdateServerComm::queueList(const QString& id, const QString& mask)
{
    postToSocket(requestLine(updateserver::LIST, id, mask));
}

void UpdateServerComm::queueList2(const QString& id, const QString& mask)
{
    postToSocket(requestLine(updateserver::LIST2, id, mask));
}

void UpdateServerComm::queueGet(const QString& id, const QString& mask, const QString& version)
{
    postToSocket(requestLine(updateserver::GET, id, mask, version));
}

void UpdateServerComm::queueGet2(const QString& id, const QString& mask, const QString& version)
{
    postToSocket(requestLine(updateserver::GET2, id, mask, version));
}

void UpdateServerComm::queueGetProductKey(const QString& id, const QString& mask)
{
    postToSocket(requestLine(updateserver::PRODUCTKEY, id, mask));
}

void UpdateServerComm::queueGetCustomerInfo(const QString& id, const QString& mask)
{
    postToSocket(requestLine(updateserver::CUSTOMERINFO, id, mask));
}

void UpdateServerComm::queueSendingOfUsageData(const QByteArray& data)
{
    bool haveSocket;
    {
        std::lock_guard<std::mutex> guard(m_stateMutex);
        haveSocket = m_socket != nullptr;
    }
    if (!haveSocket) {
        COMM_LOG(JLL_ERROR, "queueSendingOfUsageData", QStringLiteral("No socket available for command ") + QLatin1String(updateserver::USAGE));
        return;
    }
    postToSocket(data);
}

void UpdateServerComm::handleIncomingData()
{
    auto* socket = qobject_cast<QSslSocket*>(sender());
    if (!socket)
        socket = m_socket;
    if (!socket || socket != m_socket)
        return;
    receiveBytes(socket->readAll());
}

void UpdateServerComm::receiveBytes(const QByteArray& bytes)
{
    m_receiveBuffer.append(bytes);

    // A large body arrives in many reads: its header is not parsed again until it is all here.
    if (m_awaitedSize > 0 && m_receiveBuffer.size() < m_awaitedSize)
        return;
    m_awaitedSize = 0;

    bool replied = false;
    while (m_readOffset < m_receiveBuffer.size()) {
        ServerResponseParser parser(m_receiveBuffer, m_readOffset);
        connect(&parser, &ServerResponseParser::progressChanged, this, &UpdateServerComm::currentDownloadProgressChanged);
        ServerResponseParser::ParseResult result;
        parser.parse(result);

        if (result.status == ServerResponseParser::ParseResult::Complete) {
            {
                std::lock_guard<std::mutex> guard(m_stateMutex);
                m_replyCommand = QString::fromUtf8(result.command);
                m_replyMessage = QString::fromUtf8(result.message);
                // The parse result is thrown away next, so its tree is taken rather than copied.
                veltrax::SettingsFile* taken = result.settings;
                result.settings = m_replyTree.release();
                m_replyTree.reset(taken);
            }
            m_readOffset += static_cast<int>(result.consumed);
            replied = true;
        } else if (result.status == ServerResponseParser::ParseResult::Invalid) {
            {
                std::lock_guard<std::mutex> guard(m_stateMutex);
                m_replyCommand.clear();
                m_replyTree->clear("");
            }
            if (result.consumed == 0) {
                // Nothing at the front can ever become a reply: drop what is there so the
                // loop ends; the next reply can only start with bytes still to come.
                COMM_LOG(
                    JLL_ALERT, "handleIncomingData", QStringLiteral("Discarding %1 bytes that are not a reply").arg(m_receiveBuffer.size() - m_readOffset));
                m_readOffset = m_receiveBuffer.size();
            } else {
                m_readOffset += static_cast<int>(result.consumed);
            }
        } else {
            if (result.status == ServerResponseParser::ParseResult::BodyIncomplete) {
                if (result.total > kMaxReplySize) {
                    // Never buffer what a QByteArray cannot hold: treat it as a broken stream.
                    COMM_LOG(JLL_ERROR,
                        "handleIncomingData",
                        QStringLiteral("Reply of %1 bytes exceeds the limit of %2; closing the connection").arg(result.total).arg(kMaxReplySize));
                    {
                        std::lock_guard<std::mutex> guard(m_stateMutex);
                        m_replyCommand.clear();
                        m_replyTree->clear("");
                    }
                    m_receiveBuffer.clear();
                    m_readOffset = 0;
                    m_awaitedSize = 0;
                    if (m_socket)
                        m_socket->abort();
                    return;
                }
                m_awaitedSize = static_cast<qint64>(m_readOffset) + static_cast<qint64>(result.consumed) + static_cast<qint64>(result.total);
            }
            break;
        }
    }
    // Cleared once for the whole read: a waiter then sees the last of several replies that
    // arrived together, never a passing state in between.
    if (replied)
        m_waiting.store(false);

    // Compact only when the consumed front outweighs what is left, so each byte is moved a
    // bounded number of times however many replies one read carries.
    if (m_readOffset >= m_receiveBuffer.size()) {
        if (m_awaitedSize > 0)
            m_awaitedSize -= m_readOffset;
        m_receiveBuffer.clear();
        m_readOffset = 0;
    } else if (m_readOffset > 0 && m_readOffset >= m_receiveBuffer.size() - m_readOffset) {
        if (m_awaitedSize > 0)
            m_awaitedSize -= m_readOffset;
        m_receiveBuffer.remove(0, m_readOffset);
        m_readOffset = 0;
    }
}

void UpdateServerComm::handleSocketStateChanged(QAbstractSocket::SocketState socketState)
{
    if (sender() && sender() != m_socket)
        return;
    if (socketState != QAbstractSocket::ConnectedState)
        m_encrypted.store(false);
    if (socketState == QAbstractSocket::UnconnectedState) {
        if (m_waiting.load()) {
            {
                std::lock_guard<std::mutex> guard(m_stateMutex);
                m_replyCommand = QLatin1String(updateserver::CLOSED);
            }
            m_waiting.store(false);
        }
        const int last = m_lastState.load();
        if (last == QAbstractSocket::HostLookupState || last == QAbstractSocket::ConnectingState)
            COMM_LOG(JLL_ALERT, "handleSocketStateChanged", QStringLiteral("Failed to connect to update server at ") + serverString());
        // A half-read reply of a dropped connection can never complete.
        m_receiveBuffer.clear();
        m_readOffset = 0;
        m_awaitedSize = 0;
    }
    m_lastState.store(socketState);
}

void UpdateServerComm::handleSocketModeChanged(QSslSocket::SslMode socketMode)
{
    Q_UNUSED(socketMode)
}

void UpdateServerComm::handleServerSocketSslErrors(const QList<QSslError>& errors)
{
    auto* socket = qobject_cast<QSslSocket*>(sender());
    if (socket && socket == m_socket) {
        std::lock_guard<std::mutex> guard(m_stateMutex);
        m_handshakeErrors = errors;
    }
    // Called directly rather than by a socket's signal, the errors are the connection's own.
    QSslSocket* const affected = socket ? socket : m_socket;
    if (errors.isEmpty()) {
        COMM_LOG(JLL_ALERT, "handleServerSocketSslErrors", QStringLiteral("An unidentified error occurred"));
    } else {
        for (const QSslError& error : errors) {
            COMM_LOG(JLL_ALERT,
                "handleServerSocketSslErrors",
                QStringLiteral("Error during communication with ") + serverString() + QStringLiteral(": ") + error.errorString());
            if (affected)
                affected->close();
        }
    }
    // After a listed error the socket is closed already, so only an empty list lets the
    // handshake go on.
    if (socket && socket == m_socket)
        socket->ignoreSslErrors();
}

QString UpdateServerComm::replyCommand() const
{
    std::lock_guard<std::mutex> guard(m_stateMutex);
    return m_replyCommand;
}

void UpdateServerComm::prepareForReply()
{
    {
        std::lock_guard<std::mutex> guard(m_stateMutex);
        m_replyTree->clear("");
        m_replyCommand.clear();
        m_replyMessage.clear();
    }
    m_waiting.store(true);
    // A drop noticed after waitForConnection() looked but before the flag was set found no
    // waiter to release, and no reply can come any more. The state slot clears m_encrypted
    // before it reads m_waiting, so one side always sees the other's store.
    if (!m_encrypted.load()) {
        {
            std::lock_guard<std::mutex> guard(m_stateMutex);
            m_replyCommand = QLatin1String(updateserver::CLOSED);
        }
        m_waiting.store(false);
    }
}

bool UpdateServerComm::waitForReply()
{
    while (m_waiting.load() && !m_terminated.load())
        QThread::msleep(5);
    return !m_terminated.load();
}

QString UpdateServerComm::connectionProblem(const char* function)
{
    if (QThread::currentThread() == thread()) {
        // This thread's event loop would have to write the request and read the reply
        // while we wait for them: the wait could never end.
        COMM_LOG(JLL_ERROR, function, QStringLiteral("Blocking request on the connection's own thread refused"));
        return QString::fromLatin1(kOwnThread);
    }
    const std::pair<bool, QList<QSslError>> connection = waitForConnection();
    if (connection.first)
        return QString();
    if (connection.second.isEmpty())
        return QString::fromLatin1(kCouldNotConnect);
    return QString::fromLatin1(kCertificateFailed) + generateSslErrorMessage(connection.second);
}

veltrax::SettingsFile UpdateServerComm::blockingRequest(
    const char* function, const char* word, const QString& id, const QString& mask, const QString* version, const std::function<void()>& send)
{
    const QString problem = connectionProblem(function);
    if (!problem.isEmpty())
        return errorTree(problem, word, &id, &mask, version);

    veltrax::Lock lock(m_mutex);
    prepareForReply();
    send();
    if (!waitForReply())
        return errorTree(QString::fromLatin1(kTerminated), word, &id, &mask, version);

    std::lock_guard<std::mutex> guard(m_stateMutex);
    if (m_replyCommand == QLatin1String(word))
        return *m_replyTree;
    COMM_LOG(JLL_ERROR, function, QStringLiteral("Received ") + m_replyCommand + QStringLiteral(" instead of ") + QLatin1String(word));
    if (m_replyCommand == QLatin1String(updateserver::ERR))
        return errorTree(m_replyMessage, word, &id, &mask, version);
    return veltrax::SettingsFile();
}

veltrax::SettingsFile UpdateServerComm::list(const QString& id, const QString& mask)
{
    return blockingRequest("list", updateserver::LIST, id, mask, nullptr, [&] {
        queueList(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::list2(const QString& id, const QString& mask)
{
    return blockingRequest("list2", updateserver::LIST2, id, mask, nullptr, [&] {
        queueList2(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::get(const QString& id, const QString& mask, const QString& version)
{
    return blockingRequest("get", updateserver::GET, id, mask, &version, [&] {
        queueGet(id, mask, version);
    });
}

veltrax::SettingsFile UpdateServerComm::get2(const QString& id, const QString& mask, const QString& version)
{
    return blockingRequest("get2", updateserver::GET2, id, mask, &version, [&] {
        queueGet2(id, mask, version);
    });
}

veltrax::SettingsFile UpdateServerComm::getProductKey(const QString& id, const QString& mask)
{
    return blockingRequest("getProductKey", updateserver::PRODUCTKEY, id, mask, nullptr, [&] {
        queueGetProductKey(id, mask);
    });
}

veltrax::SettingsFile UpdateServerComm::getCustomerInfo(const QString& id, const QString& mask)
{
    return blockingRequest("getCustomerInfo", updateserver::CUSTOMERINFO, id, mask, nullptr, [&] {
        queueGetCustomerInfo(id, mask);
    });
}

QByteArray UpdateServerComm::buildUsageRecord(const veltrax::SettingsFile& tree)
{
    VxByteArray body;
    tree.serialize(body);
    QByteArray record = QStringLiteral("%1 %2 ").arg(QLatin1String(updateserver::USAGE)).arg(body.size()).toUtf8();
    record.append(body.data(), static_cast<int>(body.size()));
    return record;
}

veltrax::SettingsFile UpdateServerComm::prepAndSendUsageDataAndHandleReply(const QString& path, const QString& pattern)
{
    const char* word = updateserver::USAGE;
    const QString problem = connectionProblem("prepAndSendUsageDataAndHandleReply");
    if (!problem.isEmpty())
        return errorTree(problem, word, nullptr, nullptr, nullptr);

    veltrax::Lock lock(m_mutex);
    prepareForReply();

    const QFileInfo logFile(path);
    const QDir dir(logFile.absolutePath());
    const QString ownName = logFile.fileName();
    veltrax::SettingsFile logs;
    const QStringList entries = dir.entryList(QDir::Files | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString& entry : entries) {
        const QString fullName = dir.absolutePath() + QDir::separator() + entry;
        // The log being written now shares the pattern; it stays out.
        if (!fullName.contains(pattern) || fullName.contains(ownName))
            continue;
        QFile file(fullName);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
            continue;
        const QByteArray text = QString::fromUtf8(file.readAll()).toUtf8();
        file.close();
        veltrax::BinaryObject blob(text.constData(), static_cast<uint32_t>(text.size()));
        logs.setSetting(QFileInfo(fullName).baseName().toStdString(), veltrax::Variant(blob));
    }

    queueSendingOfUsageData(buildUsageRecord(logs));
    if (!waitForReply())
        return errorTree(QString::fromLatin1(kUsageTerminated), word, nullptr, nullptr, nullptr);

    std::lock_guard<std::mutex> guard(m_stateMutex);
    if (m_replyCommand == QLatin1String(word))
        return *m_replyTree;
    COMM_LOG(
        JLL_ERROR, "prepAndSendUsageDataAndHandleReply", QStringLiteral("Received ") + m_replyCommand + QStringLiteral(" instead of ") + QLatin1String(word));
    if (m_replyCommand == QLatin1String(updateserver::ERR))
        return errorTree(m_replyMessage, word, nullptr, nullptr, nullptr);
    return veltrax::SettingsFile();
}

// ---------------------------------------------------------------------------------------

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
    try {
        doRequest();
        Q_EMIT reply(*m_result);
    } catch (...) {
        // Nothing may escape a thread; without a result there is nothing to report.
    }
    m_comm.decRequests();
}

ServerLookupRequest::ServerLookupRequest(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent)
    : ServerRequest(comm, parent)
    , m_id(id)
    , m_mask(mask)
    , m_version(version)
{
}

ServerListRequest::ServerListRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, id, mask, QString(), parent)
{
}

void ServerListRequest::doRequest()
{
    *m_result = m_comm.list(m_id, m_mask);
}

ServerList2Request::ServerList2Request(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, id, mask, QString(), parent)
{
}

void ServerList2Request::doRequest()
{
    *m_result = m_comm.list2(m_id, m_mask);
}

ServerGetRequest::ServerGetRequest(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent)
    : ServerLookupRequest(comm, id, mask, version, parent)
{
}

void ServerGetRequest::doRequest()
{
    *m_result = m_comm.get(m_id, m_mask, m_version);
}

ServerGet2Request::ServerGet2Request(UpdateServerComm& comm, const QString& id, const QString& mask, const QString& version, QObject* parent)
    : ServerLookupRequest(comm, id, mask, version, parent)
{
}

void ServerGet2Request::doRequest()
{
    *m_result = m_comm.get2(m_id, m_mask, m_version);
}

ServerGetProductKeyRequest::ServerGetProductKeyRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, id, mask, QString(), parent)
{
}

void ServerGetProductKeyRequest::doRequest()
{
    *m_result = m_comm.getProductKey(m_id, m_mask);
}

ServerGetCustomerDetailsRequest::ServerGetCustomerDetailsRequest(UpdateServerComm& comm, const QString& id, const QString& mask, QObject* parent)
    : ServerLookupRequest(comm, id, mask, QString(), parent)
{
}

void ServerGetCustomerDetailsRequest::doRequest()
{
    *m_result = m_comm.getCustomerInfo(m_id, m_mask);
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

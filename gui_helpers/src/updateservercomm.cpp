// SPDX-License-Identifier: MIT
#include "updateservercomm.h"

#include "journaller.h"
#include "updateservercomm_p.h"
#include "variant.h"

#include <QCoreApplication>
#include <QSslCipher>
#include <QSslConfiguration>
#include <QThread>

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
veltrax::SettingsFile errorTree(const QString& message, const char* command, const UpdateServerCommPrivate::Arguments& arguments)
{
    using namespace updateserver;
    const std::string section = std::string(ERROR_SECTION) + '.';
    veltrax::SettingsFile tree;
    tree.setSetting(section + ERROR_MESSAGE_SETTING, textValue(message));
    tree.setSetting(section + ERROR_COMMAND_SETTING, veltrax::Variant(command));
    if (arguments.id)
        tree.setSetting(section + ERROR_ID_SETTING, textValue(*arguments.id));
    if (arguments.mask)
        tree.setSetting(section + ERROR_MASK_SETTING, textValue(*arguments.mask));
    if (arguments.version)
        tree.setSetting(section + ERROR_VERSION_SETTING, textValue(*arguments.version));
    return tree;
}

const char* const kCouldNotConnect = "Could not connect to update server";
const char* const kCertificateFailed = "Certificate verification failed (SSL error)\n";
const char* const kOwnThread = "Blocking request on the connection's own thread";
} // namespace

UpdateServerCommPrivate::UpdateServerCommPrivate(UpdateServerComm* q, const UpdateServerOptions& options)
    : q(q)
    , assembler([q](size_t progress, size_t total) {
        Q_EMIT q->currentDownloadProgressChanged(progress, total);
    })
    , replyTree(new veltrax::SettingsFile)
    , options(options)
{
}

UpdateServerComm::UpdateServerComm(QObject* parent, const UpdateServerOptions& options)
    : QObject(parent)
    , d(new UpdateServerCommPrivate(this, options))
{
    qRegisterMetaType<veltrax::SettingsFile>("veltrax::SettingsFile");
    qRegisterMetaType<size_t>("size_t");
    tryToConnectToServer();
}

UpdateServerComm::~UpdateServerComm()
{
    d->terminated.store(true);
    // Request threads notice the flag within a few milliseconds and lower the count.
    while (d->requests.load() >= 1 && d->socket)
        QThread::msleep(10);
    if (d->socket) {
        QSslSocket* socket = d->socket;
        {
            std::lock_guard<std::mutex> guard(d->stateMutex);
            d->socket = nullptr;
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
    if (d->socket) {
        const QAbstractSocket::SocketState state = d->socket->state();
        // QSslSocket keeps saying it is encrypted after the peer has closed: only a socket
        // that is not yet unconnected still counts, or a dropped connection never comes back.
        if ((d->socket->isEncrypted() && state != QAbstractSocket::UnconnectedState) || state == QAbstractSocket::HostLookupState
            || state == QAbstractSocket::ConnectingState || state == QAbstractSocket::ConnectedState)
            return;
    }

    auto* socket = new QSslSocket(this);
    QSslSocket* previous = nullptr;
    {
        std::lock_guard<std::mutex> guard(d->stateMutex);
        previous = d->socket;
        d->socket = socket;
        d->handshakeErrors.clear();
    }
    if (previous) {
        // Its last signals (a final state change while it is torn down) are no news.
        previous->disconnect(this);
        previous->deleteLater();
    }
    d->encrypted.store(false);

    QSslConfiguration config = socket->sslConfiguration();
    config.setCiphers(QSslConfiguration::supportedCiphers());
    socket->setSslConfiguration(config);

    connect(socket, &QSslSocket::readyRead, this, &UpdateServerComm::handleIncomingData);
    connect(socket, QOverload<const QList<QSslError>&>::of(&QSslSocket::sslErrors), this, &UpdateServerComm::handleServerSocketSslErrors);
    connect(socket, &QAbstractSocket::stateChanged, this, &UpdateServerComm::handleSocketStateChanged);
    connect(socket, &QSslSocket::modeChanged, this, &UpdateServerComm::handleSocketModeChanged);
    connect(socket, &QSslSocket::encrypted, this, [this, socket] {
        if (socket == d->socket)
            d->encrypted.store(true);
    });

    d->serverAddress = d->options.serverAddress;
    d->serverPort = d->options.port;
    d->assembler.reset();
    // A request polling meanwhile must see an attempt under way, not a failure.
    d->lastState.store(QAbstractSocket::HostLookupState);
    socket->connectToHostEncrypted(d->serverAddress, static_cast<quint16>(d->serverPort), QIODevice::ReadWrite, QAbstractSocket::AnyIPProtocol);
}

std::pair<bool, QList<QSslError>> UpdateServerComm::waitForConnection()
{
    // The state is mirrored in atomics by the owning thread's slots, so this poll never
    // touches the socket from the wrong thread.
    while (!d->terminated.load()) {
        if (d->encrypted.load())
            return {true, {}};
        switch (d->lastState.load()) {
        case QAbstractSocket::HostLookupState:
        case QAbstractSocket::ConnectingState:
        case QAbstractSocket::ConnectedState:
            // 100 ms between looks, in slices so that terminate() is noticed quickly.
            for (int slice = 0; slice < 10 && !d->terminated.load() && !d->encrypted.load(); ++slice)
                QThread::msleep(10);
            break;
        default: {
            std::lock_guard<std::mutex> guard(d->stateMutex);
            return {false, d->handshakeErrors};
        }
        }
    }
    return {false, {}};
}

QString UpdateServerComm::serverString() const
{
    return QStringLiteral("%1:%2").arg(d->serverAddress).arg(d->serverPort);
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
    d->terminated.store(true);
}

void UpdateServerComm::incRequests()
{
    d->requests.fetch_add(1);
}

void UpdateServerComm::decRequests()
{
    d->requests.fetch_sub(1);
}

int UpdateServerComm::requestCount() const
{
    return d->requests.load();
}

bool UpdateServerComm::event(QEvent* event)
{
    if (event->type() != SendEvent::EventType)
        return QObject::event(event);
    auto* send = static_cast<SendEvent*>(event);
    TSAN_ACQUIRE(send);
    // Only the current socket is known to be alive; an event for a replaced one is dropped.
    if (send->socket() && send->socket() == d->socket) {
        d->socket->write(send->data());
        d->socket->flush();
    } else {
        COMM_LOG(JLL_ALERT, "event", QStringLiteral("Dropped %1 bytes for a socket that is gone").arg(send->data().size()));
    }
    event->accept();
    return true;
}

void UpdateServerCommPrivate::postToSocket(const QByteArray& data)
{
    QSslSocket* target;
    {
        std::lock_guard<std::mutex> guard(stateMutex);
        target = socket;
    }
    auto* event = new SendEvent(target, data);
    TSAN_RELEASE(event);
    QCoreApplication::postEvent(q, event, Qt::NormalEventPriority);
}

void UpdateServerComm::queueSendingOfUsageData(const QByteArray& data)
{
    bool haveSocket;
    {
        std::lock_guard<std::mutex> guard(d->stateMutex);
        haveSocket = d->socket != nullptr;
    }
    if (!haveSocket) {
        COMM_LOG(JLL_ERROR, "queueSendingOfUsageData", QStringLiteral("No socket available for command ") + QLatin1String(updateserver::USAGE));
        return;
    }
    d->postToSocket(data);
}

void UpdateServerComm::handleIncomingData()
{
    auto* socket = qobject_cast<QSslSocket*>(sender());
    if (!socket)
        socket = d->socket;
    if (!socket || socket != d->socket)
        return;
    d->receive(socket->readAll());
}

void UpdateServerCommPrivate::receive(const QByteArray& bytes)
{
    const ServerReplyAssembler::Outcome outcome = assembler.feed(bytes, [this](ServerResponseParser::ParseResult& result) {
        std::lock_guard<std::mutex> guard(stateMutex);
        if (result.status == ServerResponseParser::ParseResult::Complete) {
            replyCommand = QString::fromUtf8(result.command);
            replyMessage = QString::fromUtf8(result.message);
            // The parse result is thrown away next, so its tree is taken rather than copied.
            veltrax::SettingsFile* taken = result.settings;
            result.settings = replyTree.release();
            replyTree.reset(taken);
        } else {
            replyCommand.clear();
            replyTree->clear("");
        }
    });
    if (outcome.discarded > 0)
        COMM_LOG(JLL_ALERT, "handleIncomingData", QStringLiteral("Discarding %1 bytes that are not a reply").arg(outcome.discarded));
    if (outcome.oversized > 0) {
        COMM_LOG(JLL_ERROR,
            "handleIncomingData",
            QStringLiteral("Reply of %1 bytes exceeds the limit of %2; closing the connection")
                .arg(outcome.oversized)
                .arg(ServerReplyAssembler::maxReplySize()));
        {
            std::lock_guard<std::mutex> guard(stateMutex);
            replyCommand.clear();
            replyTree->clear("");
        }
        if (socket)
            socket->abort();
        return;
    }
    // Cleared once for the whole read: a waiter then sees the last of several replies that
    // arrived together, never a passing state in between.
    if (outcome.replied)
        waiting.store(false);
}

void UpdateServerComm::handleSocketStateChanged(QAbstractSocket::SocketState socketState)
{
    if (sender() && sender() != d->socket)
        return;
    if (socketState != QAbstractSocket::ConnectedState)
        d->encrypted.store(false);
    if (socketState == QAbstractSocket::UnconnectedState) {
        if (d->waiting.load()) {
            {
                std::lock_guard<std::mutex> guard(d->stateMutex);
                d->replyCommand = QLatin1String(updateserver::CLOSED);
            }
            d->waiting.store(false);
        }
        const int last = d->lastState.load();
        if (last == QAbstractSocket::HostLookupState || last == QAbstractSocket::ConnectingState)
            COMM_LOG(JLL_ALERT, "handleSocketStateChanged", QStringLiteral("Failed to connect to update server at ") + serverString());
        // A half-read reply of a dropped connection can never complete.
        d->assembler.reset();
    }
    d->lastState.store(socketState);
}

void UpdateServerComm::handleSocketModeChanged(QSslSocket::SslMode)
{
}

void UpdateServerComm::handleServerSocketSslErrors(const QList<QSslError>& errors)
{
    auto* socket = qobject_cast<QSslSocket*>(sender());
    if (socket && socket == d->socket) {
        std::lock_guard<std::mutex> guard(d->stateMutex);
        d->handshakeErrors = errors;
    }
    // Called directly rather than by a socket's signal, the errors are the connection's own.
    QSslSocket* const affected = socket ? socket : d->socket;
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
    if (socket && socket == d->socket)
        socket->ignoreSslErrors();
}

void UpdateServerCommPrivate::prepareForReply()
{
    {
        std::lock_guard<std::mutex> guard(stateMutex);
        replyTree->clear("");
        replyCommand.clear();
        replyMessage.clear();
    }
    waiting.store(true);
    // A drop noticed after waitForConnection() looked but before the flag was set found no
    // waiter to release, and no reply can come any more. The state slot clears `encrypted`
    // before it reads `waiting`, so one side always sees the other's store.
    if (!encrypted.load()) {
        {
            std::lock_guard<std::mutex> guard(stateMutex);
            replyCommand = QLatin1String(updateserver::CLOSED);
        }
        waiting.store(false);
    }
}

bool UpdateServerCommPrivate::waitForReply()
{
    while (waiting.load() && !terminated.load())
        QThread::msleep(5);
    return !terminated.load();
}

QString UpdateServerCommPrivate::connectionProblem(const char* function)
{
    if (QThread::currentThread() == q->thread()) {
        // This thread's event loop would have to write the request and read the reply
        // while we wait for them: the wait could never end.
        COMM_LOG(JLL_ERROR, function, QStringLiteral("Blocking request on the connection's own thread refused"));
        return QString::fromLatin1(kOwnThread);
    }
    const std::pair<bool, QList<QSslError>> connection = q->waitForConnection();
    if (connection.first)
        return QString();
    if (connection.second.isEmpty())
        return QString::fromLatin1(kCouldNotConnect);
    return QString::fromLatin1(kCertificateFailed) + q->generateSslErrorMessage(connection.second);
}

veltrax::SettingsFile UpdateServerCommPrivate::blockingRequest(
    const char* function, const char* word, const Arguments& arguments, const char* terminatedMessage, const std::function<void()>& send)
{
    const QString problem = connectionProblem(function);
    if (!problem.isEmpty())
        return errorTree(problem, word, arguments);

    veltrax::Lock lock(mutex);
    prepareForReply();
    send();
    if (!waitForReply())
        return errorTree(QString::fromLatin1(terminatedMessage), word, arguments);

    std::lock_guard<std::mutex> guard(stateMutex);
    if (replyCommand == QLatin1String(word))
        return *replyTree;
    COMM_LOG(JLL_ERROR, function, QStringLiteral("Received ") + replyCommand + QStringLiteral(" instead of ") + QLatin1String(word));
    if (replyCommand == QLatin1String(updateserver::ERR))
        return errorTree(replyMessage, word, arguments);
    return veltrax::SettingsFile();
}

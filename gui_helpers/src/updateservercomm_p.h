// SPDX-License-Identifier: MIT
//
// Insides of UpdateServerComm. Not installed.
#pragma once

#include "mutex.h"
#include "settingsfile.h"
#include "updateservercomm.h"
#include "updateserverreplyassembler_p.h"

#include <QEvent>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

/**
 * Carries bytes to the thread that owns the connection, so the socket is only ever
 * written there. Events are handled in posting order, so requests reach the wire in the
 * order they were queued.
 */
class SendEvent : public QEvent
{
public:
    static constexpr QEvent::Type EventType = static_cast<QEvent::Type>(1000);

    SendEvent(QSslSocket* socket, const QByteArray& data)
        : QEvent(EventType)
        , m_socket(socket)
        , m_data(data)
    {
    }
    QSslSocket* socket() const { return m_socket; }
    const QByteArray& data() const { return m_data; }

private:
    QSslSocket* m_socket;
    QByteArray m_data;
};

class UpdateServerCommPrivate
{
public:
    /** What an error tree says about the request besides its message and word. */
    struct Arguments {
        const QString* id = nullptr;
        const QString* mask = nullptr;
        const QString* version = nullptr;
    };

    UpdateServerCommPrivate(UpdateServerComm* q, const UpdateServerOptions& options);

    /**
     * One exchange: waits for the connection, takes the lock, clears the reply, calls
     * @p send and waits for the reply. The reply tree when its word is @p word, an error
     * tree (with @p terminated as the message when terminate() ended the wait) or an empty tree.
     */
    veltrax::SettingsFile blockingRequest(
        const char* function, const char* word, const Arguments& arguments, const char* terminated, const std::function<void()>& send);
    /**
     * Waits for the connection; empty when it is usable, else the error tree's message.
     * Refused at once on the owning thread, where the wait could never end.
     */
    QString connectionProblem(const char* function);
    /** Clears the reply fields and sets the waiting flag; the caller holds the lock. */
    void prepareForReply();
    /** Polls the waiting flag; false when terminated. */
    bool waitForReply();
    void postToSocket(const QByteArray& data);
    /** Takes the replies in @p bytes off the stream. */
    void receive(const QByteArray& bytes);

    UpdateServerComm* const q;
    QSslSocket* socket = nullptr;
    ServerReplyAssembler assembler;
    veltrax::Mutex mutex;
    /** Guards the reply fields, the socket pointer and the handshake errors across threads. */
    mutable std::mutex stateMutex;
    std::unique_ptr<veltrax::SettingsFile> replyTree;
    QString replyCommand;
    QString replyMessage;
    std::atomic<bool> waiting {false};
    std::atomic<bool> terminated {false};
    QString serverAddress;
    int serverPort = 0;
    std::atomic<int> lastState {QAbstractSocket::UnconnectedState};
    std::atomic<bool> encrypted {false};
    QList<QSslError> handshakeErrors;
    const UpdateServerOptions options;
    std::atomic<int> requests {0};
};

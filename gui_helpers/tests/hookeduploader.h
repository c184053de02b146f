// SPDX-License-Identifier: MIT
//
// A TusUploader whose prepareRequest() records every request and lets a test act on it
// (kill the server, rewrite the request) just before it is sent.
#pragma once

#include "tusuploader.h"

#include <QList>
#include <QNetworkRequest>

#include <algorithm>
#include <functional>

class HookedUploader : public TusUploader
{
public:
    struct Prepared {
        bool patch; ///< a chunk (it carries "Upload-Offset"), else the creation
        qint64 offset;
        QUrl url;
        QList<QByteArray> headerNames; ///< as handed to the access manager, in order
        QByteArray verb; ///< "HEAD" or "DELETE"; empty for the creation and the chunks
    };

    using TusUploader::TusUploader;

    QNetworkRequest& prepareRequest(QNetworkRequest& request) override
    {
        const bool patch = request.hasRawHeader("Upload-Offset");
        prepared.append({patch, patch ? request.rawHeader("Upload-Offset").toLongLong() : -1, request.url(), request.rawHeaderList(),
            request.attribute(QNetworkRequest::CustomVerbAttribute).toByteArray()});
        if (hook)
            hook(request, prepared.constLast());
        return request;
    }

    /** Offsets of the chunks sent so far, resent ones included, in order. */
    QList<qint64> patchOffsets() const
    {
        QList<qint64> offsets;
        for (const Prepared& p : prepared)
            p.patch ? offsets.append(p.offset) : void();
        return offsets;
    }
    int creations() const
    {
        return int(std::count_if(prepared.begin(), prepared.end(), [](const Prepared& p) {
            return !p.patch && p.verb.isEmpty();
        }));
    }
    int count(const QByteArray& verb) const
    {
        return int(std::count_if(prepared.begin(), prepared.end(), [&](const Prepared& p) {
            return p.verb == verb;
        }));
    }

    std::function<void(QNetworkRequest&, const Prepared&)> hook;
    QList<Prepared> prepared;
};

#pragma once

// An HTTP/1.1 answer read from the bytes of its connection as they arrive: status line, header fields and the body
// in any of the three framings (a length, chunks, or until the connection closes), taken no further than the caller
// wants. It holds no socket: whoever owns the connection hands it the bytes and the close.

#include "transport/httpexchange.h"

#include <QByteArray>
#include <QList>
#include <QNetworkReply>
#include <QPair>

#include <functional>

namespace Norvane::Cloud::HttpExchange {

/// Whether the status sends the client elsewhere; the body of such an answer is never taken.
bool isRedirect(qint32 statusCode);

class AnswerParser final {
public:
    /// method: the request's, as an answer to HEAD has no body. bodyBytesTaken: as Request::bodyBytesTaken.
    AnswerParser(Method method, std::function<qint64(qint32 statusCode)> bodyBytesTaken);

    /// Reads the bytes that arrived next; nothing once the answer is done.
    void take(const QByteArray &bytes);
    /// The server closed the connection: the end of a body framed by the connection, or an answer cut short.
    void takeClose();

    /// The answer is complete, taken as far as the caller wants, or failed: no more bytes are wanted.
    bool isDone() const { return done; }
    /// What was read so far, with the parser's verdict in error and errorText: a 4xx or 5xx status, a malformed
    /// answer, a header over 64 KiB or a connection closed too early.
    const Answer &answer() const { return result; }
    /// The value of the answer's header field name, whatever its letter case; empty when there is none.
    QByteArray field(const char *name) const;

private:
    enum class Stage { StatusLine, Fields, Body, ChunkSize, ChunkData, ChunkEnd, Trailers };

    void parse();
    bool withinLineLimits(qsizetype lineEnd);
    void takeLine(const QByteArray &line);
    void takeStatusLine(const QByteArray &line);
    void takeField(const QByteArray &line);
    void startBody();
    void takeChunkSize(const QByteArray &line);
    bool takeBody();
    void cut();
    void fail(QNetworkReply::NetworkError error, const QString &text);

    const Method method;
    const std::function<qint64(qint32 statusCode)> bodyBytesTaken;
    // What arrived and is not read yet, from position on.
    QByteArray received;
    qsizetype position = 0;
    qint64 headerBytes = 0;
    Stage stage = Stage::StatusLine;
    QByteArray reasonPhrase;
    QList<QPair<QByteArray, QByteArray>> fields;
    // Body bytes still to come in the framing's current part; -1 until the connection closes.
    qint64 remaining = -1;
    qint64 bodyLimit = -1;
    Answer result;
    bool done = false;
};

} // namespace Norvane::Cloud::HttpExchange

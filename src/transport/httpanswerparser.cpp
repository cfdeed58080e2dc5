#include "transport/httpanswerparser.h"

#include "transport/transportmessages.h"

#include <algorithm>
#include <utility>

namespace Norvane::Cloud::HttpExchange {

namespace {

// Status line and header fields together; far above what object stores and catalogues send.
constexpr qint64 maximumHeaderBytes = 64 * 1024;
// A chunk's size line: a hexadecimal number and perhaps an extension.
constexpr qint64 maximumChunkLineBytes = 1024;

} // namespace

bool isRedirect(qint32 statusCode)
{
    return statusCode == 301 || statusCode == 302 || statusCode == 303 || statusCode == 307 || statusCode == 308;
}

AnswerParser::AnswerParser(Method requestMethod, std::function<qint64(qint32 statusCode)> takenBodyBytes)
    : method(requestMethod)
    , bodyBytesTaken(std::move(takenBodyBytes))
{
    result.errorText = QString::fromLatin1(TransportMessages::noErrorText);
}

void AnswerParser::take(const QByteArray &bytes)
{
    if (done)
        return;
    received += bytes;
    parse();
    received.remove(0, position);
    position = 0;
}

void AnswerParser::takeClose()
{
    if (done)
        return;
    if (stage == Stage::Body && remaining < 0)
        done = true;
    else if (stage == Stage::StatusLine && received.isEmpty())
        fail(QNetworkReply::RemoteHostClosedError, QString::fromLatin1(TransportMessages::closedBeforeAnswer));
    else
        fail(QNetworkReply::RemoteHostClosedError, QString::fromLatin1(TransportMessages::answerIncomplete));
}

QByteArray AnswerParser::field(const char *name) const
{
    for (const auto &[fieldName, value] : fields) {
        if (fieldName.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

void AnswerParser::parse()
{
    while (!done) {
        if (stage == Stage::Body || stage == Stage::ChunkData) {
            if (!takeBody())
                return;
            continue;
        }
        const qsizetype lineEnd = received.indexOf('\n', position);
        if (!withinLineLimits(lineEnd) || lineEnd < 0)
            return;
        QByteArray line = received.mid(position, lineEnd - position);
        position = lineEnd + 1;
        if (line.endsWith('\r'))
            line.chop(1);
        takeLine(line);
    }
}

// The header block (and trailer) is bounded as a whole, a chunk's size line on its own.
bool AnswerParser::withinLineLimits(qsizetype lineEnd)
{
    const qint64 lineBytes = (lineEnd < 0 ? received.size() : lineEnd + 1) - position;
    if (stage == Stage::ChunkSize || stage == Stage::ChunkEnd) {
        if (lineBytes <= maximumChunkLineBytes)
            return true;
        fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
        return false;
    }
    if (headerBytes + lineBytes <= maximumHeaderBytes) {
        headerBytes += lineEnd < 0 ? 0 : lineBytes;
        return true;
    }
    fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::headerTooLarge));
    return false;
}

void AnswerParser::takeLine(const QByteArray &line)
{
    switch (stage) {
    case Stage::StatusLine:
        return takeStatusLine(line);
    case Stage::Fields:
        return line.isEmpty() ? startBody() : takeField(line);
    case Stage::ChunkSize:
        return takeChunkSize(line);
    case Stage::ChunkEnd:
        if (!line.isEmpty())
            return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
        stage = Stage::ChunkSize;
        return;
    case Stage::Trailers:
        if (line.isEmpty())
            done = true;
        return;
    case Stage::Body:
    case Stage::ChunkData:
        return;
    }
}

void AnswerParser::takeStatusLine(const QByteArray &line)
{
    const QList<QByteArray> parts = line.split(' ');
    bool ok = false;
    const int status = parts.value(1).toInt(&ok);
    if (!line.startsWith("HTTP/1.") || !ok || status < 100 || status > 999)
        return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
    result.statusCode = status;
    reasonPhrase = parts.mid(2).join(' ');
    stage = Stage::Fields;
}

void AnswerParser::takeField(const QByteArray &line)
{
    const qsizetype colon = line.indexOf(':');
    if (colon <= 0)
        return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
    fields.append({ line.left(colon).trimmed(), line.mid(colon + 1).trimmed() });
}

void AnswerParser::startBody()
{
    // An interim answer (100 Continue and the like) is followed by the real one.
    if (result.statusCode < 200) {
        fields.clear();
        stage = Stage::StatusLine;
        return;
    }
    result.acceptRanges = field("Accept-Ranges");
    result.contentLength = field("Content-Length");
    result.contentRange = field("Content-Range");
    result.contentType = field("Content-Type");
    result.etag = field("ETag");
    result.lastModified = field("Last-Modified");
    if (result.statusCode >= 400) {
        result.error
            = result.statusCode >= 500 ? QNetworkReply::UnknownServerError : QNetworkReply::UnknownContentError;
        result.errorText = QString::fromLatin1(TransportMessages::serverReplied).arg(QString::fromLatin1(reasonPhrase));
    }
    bodyLimit = isRedirect(result.statusCode) ? 0 : bodyBytesTaken ? bodyBytesTaken(result.statusCode) : -1;
    const bool noBody = method == Method::Head || result.statusCode == 204 || result.statusCode == 304;
    if (noBody) {
        done = true;
        return;
    }
    if (field("Transfer-Encoding").toLower().contains("chunked")) {
        stage = Stage::ChunkSize;
    } else {
        bool ok = false;
        remaining = result.contentLength.toLongLong(&ok);
        remaining = ok && remaining >= 0 ? remaining : -1;
        stage = Stage::Body;
    }
    if (remaining == 0)
        done = true;
    else if (bodyLimit == 0)
        cut();
}

void AnswerParser::takeChunkSize(const QByteArray &line)
{
    bool ok = false;
    const qsizetype extension = line.indexOf(';');
    const qint64 size = line.left(extension < 0 ? line.size() : extension).trimmed().toLongLong(&ok, 16);
    if (!ok || size < 0)
        return fail(QNetworkReply::ProtocolFailure, QString::fromLatin1(TransportMessages::malformedAnswer));
    remaining = size;
    stage = size == 0 ? Stage::Trailers : Stage::ChunkData;
}

// Moves what arrived of the body into the answer; false when more must arrive first.
bool AnswerParser::takeBody()
{
    const qint64 available = received.size() - position;
    const qint64 taken = remaining < 0 ? available : std::min(available, remaining);
    if (taken == 0)
        return false;
    result.body.append(received.constData() + position, taken);
    position += taken;
    if (remaining >= 0)
        remaining -= taken;
    if (stage == Stage::Body && remaining == 0)
        done = true;
    else if (stage == Stage::ChunkData && remaining == 0)
        stage = Stage::ChunkEnd;
    if (!done && bodyLimit >= 0 && result.body.size() >= bodyLimit)
        cut();
    return true;
}

void AnswerParser::cut()
{
    result.bodyCut = true;
    done = true;
}

void AnswerParser::fail(QNetworkReply::NetworkError error, const QString &text)
{
    if (done)
        return;
    result.error = error;
    result.errorText = text;
    done = true;
}

} // namespace Norvane::Cloud::HttpExchange

#include "commandline.h"
#include "commands.h"
#include "output.h"
#include "toolmessages.h"

#include <QFile>
#include <QSaveFile>

#include <algorithm>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

constexpr qint64 defaultChunkBytes = 8 * 1024 * 1024;

CloudRangeRequest rangeRequestOf(const Invocation &invocation)
{
    CloudRangeRequest request;
    request.url = httpUrlArgument(invocation.words.at(1), QStringLiteral("URL"), invocation.command);
    const ByteRangeArgument range = byteRangeArgument(invocation.words.at(2), invocation.words.at(3),
        QStringLiteral("OFFSET"), QStringLiteral("LENGTH"), invocation.command);
    request.offset = range.offset;
    request.length = range.length;
    request.headers = invocation.global.headers;
    request.useCache = !invocation.global.noCache;
    return request;
}

// Where the bytes of a long read came from, for its closing line.
QString sourcesOf(int chunks, int chunksFromCache)
{
    if (chunksFromCache == 0)
        return QStringLiteral("from the network");
    if (chunksFromCache == chunks)
        return QStringLiteral("from the cache");
    return QStringLiteral("%1 of %2 chunks from the cache").arg(chunksFromCache).arg(chunks);
}

// The range read chunk by chunk, each through the cache and written at once, so memory stays bounded by the chunk
// size. The file appears only when every chunk has arrived.
int readToFile(const HttpRangeReader &reader,
    const CloudRangeRequest &request,
    qint64 chunkBytes,
    const QString &outputPath,
    Console &console)
{
    QSaveFile file(outputPath);
    if (!file.open(QIODevice::WriteOnly)) {
        console.err << ToolMessages::outputNotWritten.arg(outputPath, file.errorString()) << '\n';
        return 1;
    }
    ProgressBar bar(console.err, console.progressOnTerminal);
    const qint64 chunks = (request.length - 1) / chunkBytes + 1;
    int chunksFromCache = 0;
    CloudRangeResponse response;
    for (qint64 done = 0; done < request.length; done += response.data.size()) {
        CloudRangeRequest chunk = request;
        chunk.offset = request.offset + done;
        chunk.length = qMin(chunkBytes, request.length - done);
        response = reader.read(chunk);
        chunksFromCache += response.fromCache ? 1 : 0;
        if (file.write(response.data) != response.data.size()) {
            console.err << ToolMessages::outputNotWritten.arg(outputPath, file.errorString()) << '\n';
            return 1;
        }
        const qint64 completed = done + response.data.size();
        const int percent = int(completed * 100 / request.length);
        bar.show(percent, completed, request.length, QStringLiteral("reading"));
        if (!console.progressOnTerminal && chunks > 1)
            console.err << "read " << percent << "% (" << completed << " of " << request.length << " bytes)\n"
                        << Qt::flush;
    }
    bar.finish();
    if (!file.commit()) {
        console.err << ToolMessages::outputNotWritten.arg(outputPath, file.errorString()) << '\n';
        return 1;
    }
    console.err << "wrote " << request.length << " bytes to " << outputPath << " ("
                << sourcesOf(int(chunks), chunksFromCache) << ", HTTP " << response.statusCode << ", object size "
                << response.totalSize << ")\n";
    return 0;
}

} // namespace

int readCommand(const Invocation &invocation, Console &console)
{
    requireWords(invocation, 4);
    const CloudRangeRequest request = rangeRequestOf(invocation);
    const qint64 chunkBytes
        = numberAtLeast(invocation.value(QStringLiteral("chunk-size"), QString::number(defaultChunkBytes)),
            QStringLiteral("--chunk-size"), 1, invocation.command);
    HttpRangeReader reader(makeCache(invocation.global));
    reader.setTimeoutMilliseconds(invocation.global.timeoutMilliseconds);

    // --output, when given, wins over -o wherever each stands.
    const QString outputPath = invocation.value(QStringLiteral("output"), invocation.value(QStringLiteral("o")));
    if (!outputPath.isEmpty() && outputPath != QLatin1String("-"))
        return readToFile(reader, request, chunkBytes, outputPath, console);
    const CloudRangeResponse response = reader.read(request);
    console.out.flush();
    QFile standardOutput;
    standardOutput.open(stdout, QIODevice::WriteOnly);
    standardOutput.write(response.data);
    return 0;
}

} // namespace NorvaneCloudTool

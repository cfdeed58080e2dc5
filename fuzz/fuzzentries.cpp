// The entry points of the fuzz targets, one per parser. Every entry returns normally for any input; a failed check
// (a wrong answer rather than a crash) aborts with a message, which libFuzzer and the replay of kept inputs both
// report. Built once per target with NORVANE_FUZZ_ENTRY naming the entry.

#include "flat/flatdocuments.h"
#include "flat/flatmessages.h"
#include "formats/coglayout.h"
#include "formats/cogstructure.h"
#include "formats/formatsmessages.h"
#include "formats/pmtilesheader.h"
#include "formats/tiffheader.h"
#include "stac/stacmessages.h"
#include "transport/cachediskentry.h"
#include "transport/httpanswerparser.h"

#include <norvanecloud/formats.h>
#include <norvanecloud/rangetransport.h>
#include <norvanecloud/stac.h>

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QUrl>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

namespace Norvane::Cloud::Fuzzing {

namespace {

[[noreturn]] void fail(const char *what, const QByteArray &detail = QByteArray())
{
    std::fprintf(stderr, "fuzz check failed: %s %s\n", what, detail.constData());
    std::fflush(stderr);
    std::abort();
}

// Rejections may only carry the documented messages (or start with the documented prefix); anything else escaping
// is a defect.
void expectDocumented(
    const std::exception &error, std::initializer_list<const char *> messages, const char *prefix = "")
{
    const QByteArray message(error.what());
    if (*prefix && message.startsWith(prefix))
        return;
    for (const char *text : messages) {
        if (message == text)
            return;
    }
    fail("undocumented failure", message);
}

void expectStacMessage(const std::exception &error)
{
    expectDocumented(error,
        { StacMessages::assetMissing, StacMessages::assetNotCogCandidate, StacMessages::noCogAsset,
            StacMessages::itemIdEmpty },
        QByteArray(StacMessages::invalidJson).replace("%1", "").constData());
}

// One client for every input: cogLayer needs no network, and this cache keeps nothing in memory or on disk.
StacClient &stacClient()
{
    static StacClient client(QUrl(QStringLiteral("http://127.0.0.1:9/")), [] {
        CloudCacheOptions options;
        options.directory = QDir::tempPath();
        options.memoryEnabled = false;
        options.diskEnabled = false;
        return std::make_shared<CloudRangeCache>(options);
    }());
    return client;
}

bool sameResponse(const CloudRangeResponse &left, const CloudRangeResponse &right)
{
    return left.data == right.data && left.offset == right.offset && left.totalSize == right.totalSize
        && left.statusCode == right.statusCode && left.etag == right.etag && left.lastModified == right.lastModified
        && left.contentType == right.contentType && left.acceptsRanges == right.acceptsRanges;
}

} // namespace

void tiffHeader(const QByteArray &input)
{
    for (const bool acceptsRanges : { true, false }) {
        CogProbeResult result;
        result.acceptsRanges = acceptsRanges;
        result.contentLength = input.size();
        applyTiffHeader(result, input);
        if (result.diagnostic.isEmpty())
            fail("TIFF probe without diagnostic");
        if (result.cloudReadable && (!result.tiffHeaderValid || !acceptsRanges || result.firstIfdOffset < 8))
            fail("TIFF probe readable without a valid header");
        if (result.tiffHeaderValid && result.firstIfdOffset < (result.bigTiff ? 16 : 8))
            fail("TIFF header valid with a first IFD inside the header");
    }
}

// The object's bytes. The walk may only ask for ranges inside the object and may only fail with its documented
// messages; what it returns must be safe to index and to judge.
void cogStructure(const QByteArray &input)
{
    const auto read = [&input](qint64 offset, qint64 length) {
        if (offset < 0 || length < 1 || offset > input.size() - length)
            fail("COG structure read outside the object");
        return input.mid(offset, length);
    };
    CogStructureResult structure;
    try {
        structure = readCogStructure(read, input.size());
    } catch (const std::runtime_error &error) {
        using namespace FormatsMessages;
        return expectDocumented(error,
            { tiffReadShort, tiffHeaderInvalid, tiffNoIfd, tiffIfdOutside, tiffIfdLoop, tiffTooManyIfds,
                tiffIfdTooLarge, tiffValuesOutside, tiffTooManyValues, tiffTagMissing, tiffImageLayoutInvalid,
                tiffBlockCountWrong, tiffDataOutside });
    }
    if (structure.images.isEmpty() || structure.images.size() > cogStructureMaximumImages)
        fail("COG structure with no or too many images");
    for (const CogImageMetadata &image : std::as_const(structure.images)) {
        if (image.tileOffsets.isEmpty() || image.tileOffsets.size() != image.tileByteCounts.size())
            fail("COG image without matching tile offsets and byte counts");
        for (qsizetype index = 0; index < image.tileOffsets.size(); ++index) {
            const qint64 offset = image.tileOffsets[index];
            const qint64 count = image.tileByteCounts[index];
            if (offset < 0 || count < 0 || offset > input.size() - count)
                fail("COG tile outside the object");
        }
    }
    for (const QString &violation : cogLayoutViolations(structure)) {
        if (violation.isEmpty())
            fail("empty COG layout violation");
    }
}

void pmTilesHeader(const QByteArray &input)
{
    if (input.isEmpty())
        return;
    const quint8 flags = quint8(input.at(0));
    const QByteArray header = input.mid(1);
    PmTilesProbeResult result;
    result.acceptsRanges = (flags & 1) != 0;
    result.remote = (flags & 2) != 0;
    const qint64 lengths[] = { header.size(), -1, std::numeric_limits<qint64>::max(), qint64(flags) << 4 };
    result.contentLength = lengths[(flags >> 2) & 3];
    applyPmTilesHeader(result, header);
    if (result.diagnostic.isEmpty())
        fail("PMTiles probe without diagnostic");
    if (result.cloudReadable && (!result.headerValid || !result.acceptsRanges))
        fail("PMTiles probe readable without a valid header");
    if (result.headerValid) {
        const qint64 sections[][2] = { { result.rootDirectoryOffset, result.rootDirectoryLength },
            { result.metadataOffset, result.metadataLength }, { result.tileDataOffset, result.tileDataLength } };
        for (const auto &section : sections) {
            if (section[0] < 0 || section[1] < 0 || section[0] > result.contentLength
                || section[1] > result.contentLength - section[0])
                fail("PMTiles header valid with a section outside the archive");
        }
    }
}

void itemCollection(const QByteArray &input)
{
    const int lineEnd = input.indexOf('\n');
    const QByteArray urlText = lineEnd < 0 ? QByteArray() : input.left(lineEnd);
    const QByteArray body = lineEnd < 0 ? input : input.mid(lineEnd + 1);
    const QUrl pageUrl(QString::fromUtf8(urlText));
    StacSearchResult result;
    try {
        result = StacClient::parseItemCollection(body, pageUrl);
    } catch (const std::runtime_error &error) {
        expectStacMessage(error);
        return;
    }
    // Whatever was parsed must survive the rest of the way to a host: layer resolution and the flat documents.
    for (const StacItem &item : std::as_const(result.items)) {
        const QStringList keys = QStringList(QString()) + item.assets.keys();
        for (const QString &key : keys) {
            try {
                const StacCogLayer layer = stacClient().cogLayer(item, key);
                if (cogLayerToJson(layer).isEmpty())
                    fail("empty COG layer document");
            } catch (const std::exception &error) {
                expectStacMessage(error);
            }
        }
    }
    if (searchResultToJson(result).isEmpty())
        fail("empty search result document");
}

void cacheDiskEntry(const QByteArray &input)
{
    static const QTemporaryDir folder;
    const QString key = QStringLiteral("fuzzed entry");
    const QString path = QDir(folder.path()).filePath(cacheDiskFileName(key));
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(input) != input.size())
            fail("entry file could not be written");
    }
    std::optional<CacheDiskEntry> decoded = decodeCacheDiskEntry(input);
    // The cache never stores an empty range, so it treats an entry that decodes to one as damaged; and one stored more
    // than a minute ahead of now.
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    if (decoded
        && (decoded->response.data.isEmpty()
            || (decoded->storedAtMilliseconds > now && decoded->storedAtMilliseconds - now > 60000)))
        decoded.reset();

    CloudCacheOptions options;
    options.directory = folder.path();
    options.memoryEnabled = false;
    // No expiry: every entry that decodes must be served, exactly as decoded.
    options.maximumAgeSeconds = 0;
    CloudRangeCache cache(options);
    CloudRangeResponse response;
    const bool hit = cache.get(key, response);
    if (hit != decoded.has_value())
        fail(hit ? "cache served an entry that does not decode" : "cache refused an entry that decodes");
    if (hit) {
        if (!response.fromCache || !sameResponse(response, decoded->response))
            fail("cache served other bytes than the entry holds");
    } else if (QFile::exists(path)) {
        fail("bad entry file left in place");
    }
    // The same bytes again with an age limit: expiry arithmetic on a stored time that may be anything.
    if (hit) {
        options.maximumAgeSeconds = (quint8(input.at(input.size() - 1)) % 2) ? 1 : std::numeric_limits<qint64>::max();
        CloudRangeCache ageing(options);
        CloudRangeResponse aged;
        ageing.get(key, aged);
        if (!aged.data.isEmpty() && aged.data != decoded->response.data)
            fail("ageing cache served other bytes");
    }
    QFile::remove(path);
}

void flatDocuments(const QByteArray &input)
{
    if (input.isEmpty())
        return;
    const quint8 selector = quint8(input.at(0));
    const QByteArray rest = input.mid(1);
    std::vector<char16_t> text;
    if (selector & 0x80) {
        // Raw code units, unpaired surrogates and embedded zeros included.
        for (int index = 0; index + 1 < rest.size(); index += 2)
            text.push_back(char16_t(quint8(rest.at(index)) | (quint8(rest.at(index + 1)) << 8)));
    } else {
        const QString decoded = QString::fromUtf8(rest);
        text.assign(reinterpret_cast<const char16_t *>(decoded.utf16()),
            reinterpret_cast<const char16_t *>(decoded.utf16()) + decoded.size());
    }
    text.push_back(u'\0');
    const char16_t *document = text.data();

    const HeaderMap defaults { { QByteArrayLiteral("Authorization"), QByteArrayLiteral("Bearer a") } };
    try {
        switch (selector & 3) {
        case 0:
            cacheOptionsFromJson(document);
            break;
        case 1:
            headersFromJson(document);
            break;
        case 2:
            if (mergedHeaders(defaults, document).isEmpty())
                fail("merged headers lost the defaults");
            break;
        default:
            searchRequestFromJson(document);
        }
    } catch (const std::invalid_argument &error) {
        const char *expected[] = { FlatMessages::optionsNotObject, FlatMessages::headersNotObject,
            FlatMessages::headersNotObject, FlatMessages::searchRequestNotObject };
        expectDocumented(error, { expected[selector & 3] });
    }
}

// First byte: bit 0 a HEAD request; bits 1-2 how much body the caller takes (all, 16 bytes, nothing, 16 bytes of a
// 206 only). Second byte: the size of the pieces the rest arrives in. Then the server closes the connection.
void httpAnswer(const QByteArray &input)
{
    if (input.size() < 2)
        return;
    using namespace HttpExchange;
    const quint8 selector = quint8(input.at(0));
    const qsizetype piece = qsizetype(quint8(input.at(1))) + 1;
    std::function<qint64(qint32)> taken;
    switch ((selector >> 1) & 3) {
    case 1:
        taken = [](qint32) { return qint64(16); };
        break;
    case 2:
        taken = [](qint32) { return qint64(0); };
        break;
    case 3:
        taken = [](qint32 status) { return status == 206 ? qint64(16) : qint64(0); };
        break;
    default:
        break;
    }
    AnswerParser parser(selector & 1 ? Method::Head : Method::Get, taken);
    for (qsizetype at = 2; at < input.size() && !parser.isDone(); at += piece)
        parser.take(input.mid(at, piece));
    if (!parser.isDone())
        parser.takeClose();
    const Answer &answer = parser.answer();
    if (!parser.isDone())
        fail("the answer is not done after the connection closed");
    if (answer.error != QNetworkReply::NoError && answer.errorText.isEmpty())
        fail("an error without its text");
    if (answer.statusCode != 0 && (answer.statusCode < 100 || answer.statusCode > 999))
        fail("a status outside 100 to 999", QByteArray::number(answer.statusCode));
    if (selector & 1 && !answer.body.isEmpty())
        fail("a body in the answer to HEAD");
}

} // namespace Norvane::Cloud::Fuzzing

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Norvane::Cloud::Fuzzing::NORVANE_FUZZ_ENTRY(QByteArray(reinterpret_cast<const char *>(data), qsizetype(size)));
    return 0;
}

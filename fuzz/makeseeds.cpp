// Writes the seed corpus of every fuzz target from the real files in tests/data, in the input layout each entry of
// fuzzentries.h expects: makeseeds <tests/data folder> <corpus folder>. Each target gets <corpus>/<target name>/.

#include "fuzzentries.h"

#include "transport/cachediskentry.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <cstdio>

using namespace Norvane::Cloud;
using Fuzzing::Target;

namespace {

QByteArray fileStart(const QString &path, qint64 length)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.read(length);
}

QStringList filesIn(const QDir &dataFolder, const QString &folder, const QStringList &patterns)
{
    QStringList paths;
    const QDir directory(dataFolder.filePath(folder));
    for (const QString &name : directory.entryList(patterns, QDir::Files, QDir::Name))
        paths.append(directory.filePath(name));
    return paths;
}

class Corpus {
public:
    Corpus(const QDir &root, Target target)
        : folder(root.filePath(Fuzzing::targetName(target)))
    {
        QDir().mkpath(folder.path());
    }
    bool add(const QByteArray &input)
    {
        QFile file(folder.filePath(QStringLiteral("seed-%1").arg(++count, 3, 10, QLatin1Char('0'))));
        return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(input) == input.size();
    }
    int size() const { return count; }

private:
    QDir folder;
    int count = 0;
};

QByteArray utf16Bytes(const QByteArray &utf8)
{
    const QString text = QString::fromUtf8(utf8);
    QByteArray bytes;
    for (const QChar unit : text) {
        bytes.append(char(unit.unicode() & 0xFF));
        bytes.append(char(unit.unicode() >> 8));
    }
    return bytes;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s <tests/data folder> <corpus folder>\n", argv[0]);
        return 2;
    }
    const QDir data(QString::fromLocal8Bit(argv[1]));
    const QDir root(QString::fromLocal8Bit(argv[2]));
    bool written = true;

    Corpus tiff(root, Target::TiffHeader);
    for (const QString &path :
        filesIn(data, QStringLiteral("tiff"), {}) + filesIn(data, QStringLiteral("cogs"), { QStringLiteral("*.tif") }))
        written &= tiff.add(fileStart(path, 16));

    Corpus pmTiles(root, Target::PmTilesHeader);
    for (const QString &path : filesIn(data, QStringLiteral("pmtiles"), {})) {
        const QByteArray header = fileStart(path, 127);
        // Ranges accepted, remote, and an archive as long as the largest possible one or as the header alone.
        written &= pmTiles.add(char(0x0B) + header);
        written &= pmTiles.add(char(0x01) + header);
    }

    Corpus items(root, Target::ItemCollection);
    for (const QString &path : filesIn(data, QStringLiteral("stac"), { QStringLiteral("*.json") })) {
        // One feature per page is enough to reach every branch of the parser and keeps the fuzzer fast; the
        // pages keep their links and context members as the catalogue sent them.
        QJsonObject page = QJsonDocument::fromJson(fileStart(path, 1 << 20)).object();
        const QJsonArray features = page.value(QLatin1String("features")).toArray();
        if (!features.isEmpty())
            page.insert(QLatin1String("features"), QJsonArray { features.first() });
        const QByteArray body = QJsonDocument(page).toJson(QJsonDocument::Compact);
        written &= items.add("https://catalogue.example/api/stac/v1/search?limit=2\n" + body);
        written &= items.add("https://catalogue.example/collections/a/items/\n" + body);
    }

    Corpus entries(root, Target::CacheDiskEntry);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    int index = 0;
    for (const QString &path : filesIn(data, QStringLiteral("cogs"), { QStringLiteral("*.tif") })
            + filesIn(data, QStringLiteral("pmtiles"), {})) {
        CloudRangeResponse response;
        response.data = fileStart(path, 64 << index % 4);
        response.offset = 0;
        response.totalSize = QFileInfo(path).size();
        response.statusCode = index % 2 ? 200 : 206;
        response.etag = QByteArrayLiteral("\"") + QByteArray::number(index) + QByteArrayLiteral("\"");
        response.lastModified = QByteArrayLiteral("Sun, 22 Nov 2026 12:00:00 GMT");
        response.contentType = QFileInfo(path).suffix().toLatin1();
        response.acceptsRanges = index % 3 != 0;
        written &= entries.add(encodeCacheDiskEntry(response, now - index * 1000));
        ++index;
    }

    Corpus documents(root, Target::FlatDocuments);
    const QList<QByteArray> options = { R"({"directory":"/tmp/x","maximumMemoryBytes":1048576,)"
                                        R"("maximumDiskBytes":9007199254740993,"maximumAgeSeconds":60,)"
                                        R"("memoryEnabled":true,"diskEnabled":false})",
        "{}", "[]" };
    const QList<QByteArray> headers = { R"({"Authorization":"Bearer abc","X-Api-Key":"k"})", R"({"a":1,"b":null})" };
    QList<QByteArray> searches = { R"({"collections":["a","b"],"bbox":[-10,-5,10,5],"limit":2,)"
                                   R"("datetime":"2020-01-01T00:00:00Z/..","filter-lang":"cql2-json"})" };
    // Real search requests: the bodies that catalogues put into their next links.
    for (const QString &path : filesIn(data, QStringLiteral("stac"), { QStringLiteral("*.json") })) {
        const QJsonArray links
            = QJsonDocument::fromJson(fileStart(path, 1 << 20)).object().value(QLatin1String("links")).toArray();
        for (const QJsonValue &link : links) {
            const QJsonObject body = link.toObject().value(QLatin1String("body")).toObject();
            if (!body.isEmpty())
                searches.append(QJsonDocument(body).toJson(QJsonDocument::Compact));
        }
    }
    for (const QByteArray &document : options) {
        written &= documents.add(char(0x00) + document);
        written &= documents.add(char(0x80) + utf16Bytes(document));
    }
    for (const QByteArray &document : headers) {
        written &= documents.add(char(0x01) + document);
        written &= documents.add(char(0x82) + utf16Bytes(document));
    }
    for (const QByteArray &document : searches) {
        written &= documents.add(char(0x03) + document);
        written &= documents.add(char(0x83) + utf16Bytes(document));
    }

    std::printf("seeds: tiffheader %d, pmtilesheader %d, itemcollection %d, cachediskentry %d, flatdocuments %d\n",
        tiff.size(), pmTiles.size(), items.size(), entries.size(), documents.size());
    return written ? 0 : 1;
}

// A loopback HTTP server process for the flat interface's real hosts (a C program and a Python ctypes program),
// which cannot run the C++ test server in their own process. It serves the test data folder, a STAC catalogue at
// /stac (the NAIP result page, its COG assets pointed at a TIFF of this server), an empty catalogue at /empty,
// and a COG that only answers requests carrying "Authorization: Bearer flat" at /private/cog.tif.
//
// Usage: flattestserver <test data folder>. Prints "port <n>" on its first line once it listens, then serves
// until it is terminated.

#include "loopbackhttpserver.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

using Norvane::Cloud::Testing::LoopbackHttpServer;
using Norvane::Cloud::Testing::LoopbackRequest;
using Norvane::Cloud::Testing::LoopbackResponse;

namespace {

QByteArray fileBytes(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The page with every COG asset moved to this server, so a resolved layer can be probed.
QByteArray catalogPage(const QByteArray &page, const QUrl &cog)
{
    QJsonObject document = QJsonDocument::fromJson(page).object();
    QJsonArray features = document.value(QLatin1String("features")).toArray();
    for (qsizetype index = 0; index < features.size(); ++index) {
        QJsonObject feature = features.at(index).toObject();
        QJsonObject assets = feature.value(QLatin1String("assets")).toObject();
        for (const QString &key : assets.keys()) {
            QJsonObject asset = assets.value(key).toObject();
            if (asset.value(QLatin1String("type")).toString().startsWith(QLatin1String("image/tiff")))
                asset.insert(QLatin1String("href"), cog.toString(QUrl::FullyEncoded));
            assets.insert(key, asset);
        }
        feature.insert(QLatin1String("assets"), assets);
        features.replace(index, feature);
    }
    document.insert(QLatin1String("features"), features);
    return QJsonDocument(document).toJson(QJsonDocument::Compact);
}

LoopbackResponse jsonAnswer(const QByteArray &body)
{
    LoopbackResponse response;
    response.headers = { { "Content-Type", "application/geo+json" } };
    response.body = body;
    return response;
}

// Whole object or one "bytes=a-b" range, but only for the expected credentials.
LoopbackResponse privateObject(const LoopbackRequest &request, const QByteArray &content)
{
    LoopbackResponse response;
    if (request.header("Authorization") != "Bearer flat") {
        response.status = 403;
        return response;
    }
    return LoopbackHttpServer::objectResponse(request, content, "image/tiff");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    if (argc != 2) {
        std::fprintf(stderr, "usage: flattestserver <test data folder>\n");
        return 2;
    }
    const QString data = QString::fromLocal8Bit(argv[1]);

    LoopbackHttpServer server;
    if (!server.start()) {
        std::fprintf(stderr, "cannot listen: %s\n", qPrintable(server.errorString()));
        return 1;
    }
    server.serveDirectory(data);
    const QByteArray cog = fileBytes(data + QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff"));
    const QByteArray page
        = catalogPage(fileBytes(data + QStringLiteral("/stac/planetary-computer-naip-page1-next-post-token.json")),
            server.url(QStringLiteral("/tiff/bigtiff-cog-le-ifd-at-16.tiff")));
    const QByteArray empty
        = fileBytes(data + QStringLiteral("/stac/planetary-computer-search-ids-no-match-empty.json"));
    if (cog.isEmpty() || page.isEmpty() || empty.isEmpty()) {
        std::fprintf(stderr, "test data missing below %s\n", argv[1]);
        return 1;
    }
    server.setHandler(QStringLiteral("/stac/search"), [page](const LoopbackRequest &) { return jsonAnswer(page); });
    server.setHandler(QStringLiteral("/empty/search"), [empty](const LoopbackRequest &) { return jsonAnswer(empty); });
    server.setHandler(QStringLiteral("/private/cog.tif"),
        [cog](const LoopbackRequest &request) { return privateObject(request, cog); });

    std::printf("port %u\n", static_cast<unsigned>(server.port()));
    std::fflush(stdout);
    return application.exec();
}

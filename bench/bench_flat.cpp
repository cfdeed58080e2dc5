// The flat interface's own costs: a COG probe whose 16-byte header read comes from the cache (only its HEAD
// reaches the loopback server), and writing a search result document for a recorded page of ten items.

#include <norvanecloud/flat.h>
#include <norvanecloud/stac.h>

#include "flat/flatdocuments.h"

#include <faultserver.h>

#include <QFile>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

using namespace Norvane::Cloud;

namespace {

QByteArray readFixture(const QString &relative)
{
    QFile file(QStringLiteral(NORVANE_TEST_DATA_DIR "/") + relative);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

std::u16string utf16(const QString &text)
{
    return std::u16string(reinterpret_cast<const char16_t *>(text.utf16()), static_cast<size_t>(text.size()));
}

void cogProbeJsonFromCache(benchmark::State &state)
{
    const QByteArray tiff = readFixture(QStringLiteral("tiff/bigtiff-cog-le-ifd-at-16.tiff"));
    Testing::FaultServer server([tiff](const Testing::FaultRequest &request) { return objectReply(request, tiff); });
    QTemporaryDir folder;
    NorvaneCloudClient *client
        = NorvaneCloud_CreateClient(utf16(QStringLiteral("{\"directory\":\"%1\"}").arg(folder.path())).c_str());
    const std::u16string url = utf16(server.url("/bigtiff-cog-le-ifd-at-16.tiff").toString());
    std::vector<char16_t> buffer(4096);
    if (NorvaneCloud_CogProbeJson(client, url.c_str(), nullptr, buffer.data(), 4096) <= 0) {
        state.SkipWithError("probe failed");
        NorvaneCloud_DestroyClient(client);
        return;
    }
    const int requestsBefore = server.requestCount();

    for (auto _ : state)
        benchmark::DoNotOptimize(NorvaneCloud_CogProbeJson(client, url.c_str(), nullptr, buffer.data(), 4096));

    // Every timed probe sent its HEAD and nothing else.
    if (server.requestCount() - requestsBefore != static_cast<int>(state.iterations()))
        state.SkipWithError("a timed probe read its header from the network");
    NorvaneCloud_DestroyClient(client);
}
BENCHMARK(cogProbeJsonFromCache)->Unit(benchmark::kMicrosecond);

void writeSearchResultDocument(benchmark::State &state)
{
    const QByteArray page = readFixture(QStringLiteral("stac/planetary-computer-naip-page1-next-post-token.json"));
    const StacSearchResult result = StacClient::parseItemCollection(
        page, QUrl(QStringLiteral("https://planetarycomputer.microsoft.com/api/stac/v1/search")));
    qsizetype documentUnits = 0;
    for (auto _ : state) {
        const QString document = searchResultToJson(result);
        documentUnits = document.size();
        benchmark::DoNotOptimize(document.constData());
    }
    state.SetBytesProcessed(qint64(state.iterations()) * page.size());
    state.counters["page_bytes"] = double(page.size());
    state.counters["document_units"] = double(documentUnits);
}
BENCHMARK(writeSearchResultDocument)->Unit(benchmark::kMicrosecond);

} // namespace

#include "gdaloptions.h"

#include "commandline.h"
#include "commands.h"

#include <norvanecloud/formats.h>

#include <QRegularExpression>

#include <algorithm>

namespace NorvaneCloudTool {

using namespace Norvane::Cloud;

namespace {

const QByteArray allowedExtensionsKey = QByteArrayLiteral("CPL_VSIL_CURL_ALLOWED_EXTENSIONS");

// The last segment of the location's path: GDAL judges the name, never the query.
QString objectName(const QString &location)
{
    const QUrl url = urlArgument(location);
    const QString path = url.scheme().isEmpty() ? location : url.path();
    return path.section(QLatin1Char('/'), -1);
}

QByteArray quotedIfNeeded(const QByteArray &item)
{
    if (!item.contains(',') && !item.contains('"'))
        return item;
    QByteArray escaped = item;
    escaped.replace('\\', "\\\\").replace('"', "\\\"");
    return '"' + escaped + '"';
}

QString shellWord(const QString &value)
{
    static const QRegularExpression plain(QStringLiteral("^[A-Za-z0-9._,:/=+-]+$"));
    if (plain.match(value).hasMatch())
        return value;
    return QLatin1Char('\'') + QString(value).replace(QLatin1String("'"), QLatin1String("'\\''")) + QLatin1Char('\'');
}

} // namespace

QByteArray allowedExtensionsFor(const QString &location)
{
    const QString name = objectName(location);
    const qsizetype dot = name.lastIndexOf(QLatin1Char('.'));
    // A leading dot names a hidden file, not an extension.
    if (dot <= 0 || dot == name.size() - 1)
        return QByteArrayLiteral("{noext}");
    const QString extension = name.mid(dot).toLower();
    if (extension == QLatin1String(".tif") || extension == QLatin1String(".tiff"))
        return QByteArrayLiteral(".tif,.tiff");
    return name.mid(dot).toUtf8();
}

QByteArray gdalHeaders(const QHash<QByteArray, QByteArray> &headers)
{
    QList<QByteArray> names = headers.keys();
    std::sort(names.begin(), names.end());
    QList<QByteArray> items;
    for (const QByteArray &name : names)
        items.append(quotedIfNeeded(name + ": " + headers.value(name)));
    return items.join(',');
}

QHash<QByteArray, QByteArray> gdalAccessOptions(const QString &location, const GlobalOptions &global, qint64 cacheSize)
{
    GlobalOptions nothingStored;
    nothingStored.noCache = true;
    QHash<QByteArray, QByteArray> options = CogSource(makeCache(nothingStored)).recommendedGdalOptions(cacheSize);
    if (!location.isEmpty())
        options.insert(allowedExtensionsKey, allowedExtensionsFor(location));
    if (!global.headers.isEmpty())
        options.insert(QByteArrayLiteral("GDAL_HTTP_HEADERS"), gdalHeaders(global.headers));
    if (!location.isEmpty() || global.timeoutMilliseconds != GlobalOptions().timeoutMilliseconds) {
        const QByteArray seconds = QByteArray::number((qint64(global.timeoutMilliseconds) + 999) / 1000);
        options.insert(QByteArrayLiteral("GDAL_HTTP_TIMEOUT"), seconds);
        options.insert(QByteArrayLiteral("GDAL_HTTP_CONNECTTIMEOUT"), seconds);
    }
    return options;
}

QStringList gdalConfigPairs(const QHash<QByteArray, QByteArray> &options)
{
    QList<QByteArray> keys = options.keys();
    std::sort(keys.begin(), keys.end());
    QStringList pairs;
    for (const QByteArray &key : keys)
        pairs.append(QStringLiteral("--config %1 %2")
                         .arg(QString::fromLatin1(key), shellWord(QString::fromUtf8(options.value(key)))));
    return pairs;
}

int gdalOptionsCommand(const Invocation &invocation, Console &console)
{
    if (invocation.words.size() > 2)
        requireWords(invocation, 2);
    const qint64 cacheSize = numberAtLeast(invocation.value(QStringLiteral("cache-size"), QStringLiteral("268435456")),
        QStringLiteral("--cache-size"), 1, invocation.command);
    const QString location = invocation.words.value(1);
    console.out << gdalConfigPairs(gdalAccessOptions(location, invocation.global, cacheSize)).join(QLatin1Char(' '))
                << '\n';
    return 0;
}

} // namespace NorvaneCloudTool

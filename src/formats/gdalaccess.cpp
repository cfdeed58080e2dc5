#include "formats/gdalaccess.h"

#include "formats/formatsmessages.h"
#include "transport/requestcheck.h"

#include <QFileInfo>

#include <stdexcept>

namespace Norvane::Cloud {

bool isHttpUrl(const QUrl &url)
{
    return url.isValid() && RequestCheck::usesHttp(url);
}

bool isRemoteLocation(const QString &location)
{
    return isHttpUrl(QUrl(location, QUrl::TolerantMode));
}

QString gdalVirtualPath(const QUrl &url, const char *refusalMessage)
{
    if (!isHttpUrl(url))
        throw std::invalid_argument(refusalMessage);
    return QStringLiteral("/vsicurl/") + url.toString(QUrl::FullyEncoded);
}

QString cogGdalVirtualPath(const QUrl &url)
{
    return gdalVirtualPath(url, FormatsMessages::cogUrlNotHttp);
}

QString cloudObjectGdalVirtualPath(const QUrl &url)
{
    return gdalVirtualPath(url, FormatsMessages::cloudObjectUrlNotHttp);
}

QString gdalPathOfLocation(const QString &location)
{
    const QUrl url(location, QUrl::TolerantMode);
    if (isHttpUrl(url))
        return cloudObjectGdalVirtualPath(url);
    return QFileInfo(location).absoluteFilePath();
}

QHash<QByteArray, QByteArray> recommendedCogGdalOptions(qint64 cacheSize)
{
    if (cacheSize < 1)
        throw std::invalid_argument(FormatsMessages::gdalCacheSizeNotPositive);
    return {
        { QByteArrayLiteral("GDAL_DISABLE_READDIR_ON_OPEN"), QByteArrayLiteral("EMPTY_DIR") },
        { QByteArrayLiteral("CPL_VSIL_CURL_ALLOWED_EXTENSIONS"), QByteArrayLiteral(".tif,.tiff") },
        { QByteArrayLiteral("VSI_CACHE"), QByteArrayLiteral("FALSE") },
        { QByteArrayLiteral("CPL_VSIL_CURL_CACHE_SIZE"), QByteArray::number(cacheSize, 10) },
    };
}

} // namespace Norvane::Cloud

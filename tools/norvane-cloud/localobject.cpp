#include "localobject.h"

#include "toolmessages.h"

#include <stdexcept>

namespace NorvaneCloudTool {

LocalObject::LocalObject(const QString &path)
    : file(path)
{
    if (!file.open(QIODevice::ReadOnly))
        throw std::runtime_error(ToolMessages::localFileNotOpened.arg(path, file.errorString()).toStdString());
    const uchar *mapped = file.size() > 0 ? file.map(0, file.size()) : nullptr;
    const QByteArray content
        = mapped ? QByteArray::fromRawData(reinterpret_cast<const char *>(mapped), file.size()) : QByteArray();
    // A fixed name: the file's own may hold characters that the URL would have to escape.
    const QString name = QStringLiteral("/local-object");
    // An ETag from size and modification time, as file servers make them: a digest would read the whole file.
    const QByteArray etag = '"' + QByteArray::number(QFileInfo(file).lastModified().toSecsSinceEpoch(), 16) + '-'
        + QByteArray::number(file.size(), 16) + '"';
    server.serveObject(name, content, QByteArrayLiteral("application/octet-stream"), etag);
    if (!server.start())
        throw std::runtime_error(ToolMessages::localServerNotStarted.arg(server.errorString()).toStdString());
    servedUrl = server.url(name);
}

} // namespace NorvaneCloudTool

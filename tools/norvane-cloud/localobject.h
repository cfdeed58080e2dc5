#pragma once

#include "demoserver.h"

#include <QFile>
#include <QFileInfo>
#include <QUrl>

namespace NorvaneCloudTool {

// A local file probed exactly as an object on a server is: served whole and by byte ranges on a loopback port for
// the length of the probe, memory-mapped so that a large file is not read into memory. Nothing is cached.
class LocalObject final {
public:
    /// Serves the file at path; std::runtime_error when it cannot be opened or served.
    explicit LocalObject(const QString &path);

    const QUrl &url() const { return servedUrl; }
    /// The file's own URL, reported where the loopback URL would be.
    QUrl fileUrl() const { return QUrl::fromLocalFile(QFileInfo(file).absoluteFilePath()); }

private:
    QFile file;
    DemoServer server;
    QUrl servedUrl;
};

} // namespace NorvaneCloudTool

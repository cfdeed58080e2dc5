#pragma once

// The tool's --json output is exactly what the flat C functions write; this wraps one flat client for that.

#include "commandline.h"

#include <QJsonObject>

struct NorvaneCloudClient;

namespace NorvaneCloudTool {

/// Owns one flat client configured from the global options. Every call returns the flat function's document
/// or throws std::runtime_error with the flat interface's last-error text.
class FlatClient final {
public:
    explicit FlatClient(const GlobalOptions &global);
    ~FlatClient();
    FlatClient(const FlatClient &) = delete;
    FlatClient &operator=(const FlatClient &) = delete;

    QString cogProbe(const QString &url) const;
    QString pmTilesInspect(const QString &location) const;
    QString geoParquetProbe(const QString &url) const;
    QString stacSearch(const QString &catalog, const QJsonObject &request) const;
    QString stacResolveCogLayer(
        const QString &catalog, const QJsonObject &request, const QString &assetKey, int itemIndex) const;
    QString cacheStatistics() const;

private:
    NorvaneCloudClient *client = nullptr;
};

} // namespace NorvaneCloudTool

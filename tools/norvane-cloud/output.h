#pragma once

// Human-readable output of norvane-cloud: aligned tables and a progress bar.

#include <norvanecloud/formats.h>
#include <norvanecloud/stac.h>

#include <QJsonObject>
#include <QTextStream>

namespace NorvaneCloudTool {

/// Rows of "label  value", labels padded to one column.
class Table final {
public:
    void add(const QString &label, const QString &value);
    void print(QTextStream &out) const;

private:
    QList<std::pair<QString, QString>> rows;
};

void printProbe(QTextStream &out, const Norvane::Cloud::CogProbeResult &result);
void printProbe(QTextStream &out, const Norvane::Cloud::PmTilesProbeResult &result);
void printProbe(QTextStream &out, const Norvane::Cloud::GeoParquetProbeResult &result);
/// The header and one block per image of a TIFF object.
void printStructure(QTextStream &out, const Norvane::Cloud::CogStructureResult &result);
/// The same structure as one JSON document, every field including the tile arrays.
QJsonObject structureJson(const Norvane::Cloud::CogStructureResult &result);
void printViewportSummary(QTextStream &out, const Norvane::Cloud::CogViewportResult &result);
/// The rows of the viewport summary, added to a table of the caller's.
void addViewportSummary(Table &table, const Norvane::Cloud::CogViewportResult &result);
void printStacItems(QTextStream &out, const QList<Norvane::Cloud::StacItem> &items);
void printCogLayer(QTextStream &out, const Norvane::Cloud::StacCogLayer &layer);
void printCacheStatistics(QTextStream &out,
    const Norvane::Cloud::CloudCacheOptions &options,
    const Norvane::Cloud::CloudCacheStatistics &statistics);

/// A one-line progress bar redrawn in place; draws nothing when the stream is not a terminal.
class ProgressBar final {
public:
    ProgressBar(QTextStream &stream, bool enabled);
    void show(int percent, qint64 completed, qint64 total, const QString &message);
    void finish();

private:
    QTextStream &stream;
    bool enabled;
    bool drawn = false;
};

} // namespace NorvaneCloudTool

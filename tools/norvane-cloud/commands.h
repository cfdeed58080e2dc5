#pragma once

// The commands of norvane-cloud. Each one returns the exit status; library failures are thrown as std::exception,
// command-line mistakes as UsageError.

#include "commandline.h"

#include <norvanecloud/formats.h>

#include <QUrl>

#include <memory>

namespace NorvaneCloudTool {

int probeCommand(const Invocation &invocation, Console &console);
int infoCommand(const Invocation &invocation, Console &console);
int readCommand(const Invocation &invocation, Console &console);
int viewportCommand(const Invocation &invocation, Console &console);
int stacSearchCommand(const Invocation &invocation, Console &console);
int stacLayerCommand(const Invocation &invocation, Console &console);
int gdalPathCommand(const Invocation &invocation, Console &console);
int gdalOptionsCommand(const Invocation &invocation, Console &console);
int cacheStatsCommand(const Invocation &invocation, Console &console);
int cacheClearCommand(const Invocation &invocation, Console &console);
int demoCommand(const Invocation &invocation, Console &console);
int completionCommand(const Invocation &invocation, Console &console);

/// The cache the global options ask for.
std::shared_ptr<Norvane::Cloud::CloudRangeCache> makeCache(const GlobalOptions &global);
/// A location argument as a URL, read in tolerant mode.
QUrl urlArgument(const QString &text);
/// An http(s) URL argument; anything else is a UsageError of the command naming `what`.
QUrl httpUrlArgument(const QString &text, const QString &what, const QString &command);
/// The ranges of a ranges file: one "OFFSET LENGTH" or "OFFSET:LENGTH" a line, "#" starting a comment. A file that
/// cannot be read or a line that is no range is a UsageError of the command.
/// The structure of a TIFF at an http(s) URL (with the global options) or at a local path.
Norvane::Cloud::CogStructureResult structureOf(const QString &location, const GlobalOptions &global);
/// Prints the verdict of the layout rules after a blank line and returns the exit status: 0 valid, 3 not valid.
int printLayoutVerdict(QTextStream &out, const Norvane::Cloud::CogStructureResult &structure);
QList<Norvane::Cloud::CogByteRange> rangesFromFile(const QString &path, const QString &command);

} // namespace NorvaneCloudTool

#pragma once

// What each fuzz target does with one input. The libFuzzer executables and the regression test of the normal
// suite (tests/hardening) call the same functions, so a crash input kept as a regression case replays exactly the
// code path that found it.
//
// Every entry returns normally for any input. A failure of a check (a wrong answer rather than a crash) aborts
// with a message on stderr, which libFuzzer and the regression test both report as a failure.

#include <QByteArray>
#include <QString>

#include <cstddef>
#include <cstdint>

namespace Norvane::Cloud::Fuzzing {

/// The bytes are the start of an object; the probe's inspection fields are fixed.
void tiffHeader(const QByteArray &input);
/// First byte: flags for acceptsRanges, remote and how contentLength is chosen; the rest is the header.
void pmTilesHeader(const QByteArray &input);
/// First line: the page URL (any text); the rest: the page body.
void itemCollection(const QByteArray &input);
/// The bytes are written as the entry file of one key, then looked up through a cache on a temporary folder.
void cacheDiskEntry(const QByteArray &input);
/// First byte: which reader (options, headers, merged headers, search request) and whether the rest is UTF-8 or
/// raw UTF-16 code units; the rest: the document.
void flatDocuments(const QByteArray &input);

/// The names of the targets, as used for the fuzz executables, the seed folders and the regression folders.
enum class Target { TiffHeader, PmTilesHeader, ItemCollection, CacheDiskEntry, FlatDocuments };
QString targetName(Target target);
void run(Target target, const QByteArray &input);

/// Stops the process with a message: a check failed.
[[noreturn]] void fail(const char *what, const QByteArray &detail = QByteArray());

} // namespace Norvane::Cloud::Fuzzing

#pragma once

// Every message text of norvane-cloud, once: the command-line mistakes (exit status 2) and the failures the tool
// reports itself (exit status 1). The library's own failures reach the user in the library's words.

#include <QLatin1String>

namespace NorvaneCloudTool::ToolMessages {

inline constexpr QLatin1String unknownCommand("unknown command \"%1\"");
inline constexpr QLatin1String unknownOption("unknown option %1");
inline constexpr QLatin1String optionNeedsValue("option %1 needs a value");
inline constexpr QLatin1String optionTakesNoValue("option --%1 takes no value");
inline constexpr QLatin1String missingArgument("missing argument");
inline constexpr QLatin1String tooManyArguments("too many arguments");
// %1 what the number is for, %2 the text given.
inline constexpr QLatin1String notWholeNumber("%1 must be a whole number, got \"%2\"");
// %1 what the number is for, %2 the smallest allowed, (%3 the largest,) then the text given.
inline constexpr QLatin1String numberTooSmall("%1 must be at least %2, got %3");
inline constexpr QLatin1String numberOutOfRange("%1 must be from %2 to %3, got %4");
inline constexpr QLatin1String urlNotHttp("%1 must be an http or https URL, got \"%2\"");
inline constexpr QLatin1String rangeOverflows("OFFSET + LENGTH is beyond the largest byte offset");
inline constexpr QLatin1String noRanges("no ranges to read: give --range or --ranges-file");
inline constexpr QLatin1String bboxWrongSize("--bbox takes 4 or 6 numbers");
inline constexpr QLatin1String headerMalformed("--header needs \"Name: value\", got \"%1\"");
inline constexpr QLatin1String timeoutNotPositive("--timeout must be a positive number of milliseconds");
inline constexpr QLatin1String formatUnknown("--format must be cog, pmtiles or parquet");
inline constexpr QLatin1String formatNotTold("cannot tell the format of %1 from its name; use --format");
inline constexpr QLatin1String rangeMalformed("a range is OFFSET:LENGTH, got \"%1\"");
inline constexpr QLatin1String rangesFileUnreadable("cannot read ranges file %1");
inline constexpr QLatin1String bboxNotNumbers("--bbox takes numbers separated by commas");
inline constexpr QLatin1String itemRequired("--item N is required");

// %1 the path, %2 the file system's error text.
inline constexpr QLatin1String outputNotWritten("cannot write %1: %2");
// %1 the index asked for, %2 the number of items on the page.
inline constexpr QLatin1String itemNotOnFirstPage("item %1 is not on the first page (%2 items)");
// %1 the path, %2 the file system's error text.
inline constexpr QLatin1String localFileNotOpened("cannot open %1: %2");
inline constexpr QLatin1String localServerNotStarted("cannot serve the local file on loopback: %1");
inline constexpr QLatin1String layoutValid("layout valid: every cloud-optimised layout rule holds");
// Followed by one rule a line.
inline constexpr QLatin1String layoutNotValid("layout not valid:");
inline constexpr QLatin1String sampleMissing("bundled sample %1 is missing");
inline constexpr QLatin1String sampleServerNotStarted("the sample server could not start: %1");

// Viewports by window: the first four are usage errors, the rest facts found on the server.
inline constexpr QLatin1String windowMalformed(
    "--window needs X,Y,W,H in pixels: X and Y at least 0, W and H at least 1; got \"%1\"");
inline constexpr QLatin1String windowWithRanges("--window cannot be combined with --range or --ranges-file");
inline constexpr QLatin1String mapWithoutWindow("--map draws a window read: give --window too");
// %1 the level asked for, %2 the highest level.
inline constexpr QLatin1String levelMissing("level %1 does not exist: the object has levels 0 to %2");
// %1 the window as given, %2 the level, %3 its width, %4 its height.
inline constexpr QLatin1String windowOutside("window %1 lies outside level %2, which is %3 x %4 pixels");
inline constexpr QLatin1String windowTilesNeverWritten("every tile the window meets was never written");

} // namespace NorvaneCloudTool::ToolMessages

#pragma once

// The tool's --json output is exactly what the flat C functions write, asked of a flat client made from the global
// options.

#include "commandline.h"

#include <norvanecloud/flat.h>

#include <functional>

namespace NorvaneCloudTool {

/// One call of a text function of the flat interface on the given client, buffer and capacity.
using FlatTextCall = std::function<int32_t(NorvaneCloudClient *client, char16_t *buffer, int32_t capacity)>;

/// The text the call writes on a new client configured from the global options. The call is made once with a
/// buffer of 64 Ki units and repeated only when the length it returns says the text did not fit. Throws
/// std::runtime_error with the flat interface's last error when the client cannot be made or the call fails.
QString flatDocument(const GlobalOptions &global, const FlatTextCall &call);

/// Text as the flat functions take it: zero-terminated UTF-16, valid while the string lives unchanged.
const char16_t *utf16(const QString &text);

} // namespace NorvaneCloudTool

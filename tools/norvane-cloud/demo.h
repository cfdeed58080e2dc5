#pragma once

#include "commands.h"

namespace NorvaneCloudTool {

/// Serves the bundled sample set on a free loopback port and walks through every capability of the library.
int runDemo(const GlobalOptions &global, Console &console);

} // namespace NorvaneCloudTool

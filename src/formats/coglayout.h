#pragma once

// The layout rules of a cloud-optimised TIFF, judged on its directory structure alone.

#include <norvanecloud/formats.h>

#include <QStringList>

namespace Norvane::Cloud {

/// The sentences of the broken rules in a fixed order (see CogSource::layoutViolations); empty when all hold.
/// Masks are neither overviews nor main images. Tiles with a byte count of 0 were never written and are ignored.
QStringList cogLayoutViolations(const CogStructureResult &structure);

} // namespace Norvane::Cloud

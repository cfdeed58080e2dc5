#pragma once

// Every message text of the flat interface, once. Tests pin them exactly.

namespace Norvane::Cloud::FlatMessages {

inline constexpr char clientNull[] = "Cloud client is null";
inline constexpr char optionsNotObject[] = "Cloud client options must be a JSON object";
inline constexpr char headersNotObject[] = "Cloud headers must be a JSON object";
inline constexpr char searchRequestNotObject[] = "STAC search request must be a JSON object";
inline constexpr char itemIndexOutOfRange[] = "STAC item index is out of range";
inline constexpr char resultTooLong[] = "Result text is longer than 2147483647 UTF-16 units";

// Name a temporary Qt application object is given.
inline constexpr char applicationName[] = "Norvane.Cloud";
// Qt's own warning, which a temporary application object made on another thread than the first holds back.
inline constexpr char applicationThreadWarning[] = "WARNING: QApplication was not created in the main() thread.";

} // namespace Norvane::Cloud::FlatMessages

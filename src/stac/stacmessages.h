#pragma once

// Every message text of the STAC client, once. Tests pin them exactly.

namespace Norvane::Cloud::StacMessages {

inline constexpr char catalogUrlInvalid[] = "STAC catalog URL is invalid";
inline constexpr char timeoutNotPositive[] = "STAC timeout must be positive";
inline constexpr char limitNotPositive[] = "STAC search limit must be positive";
inline constexpr char bboxWrongSize[] = "STAC bbox must contain four or six coordinates";
inline constexpr char bboxWithIntersects[] = "STAC search cannot contain both bbox and intersects";
inline constexpr char pageUrlInvalid[] = "STAC page URL is invalid";
inline constexpr char noNextPage[] = "STAC result does not contain a next page";
inline constexpr char nextMethodUnsupported[] = "STAC next-page method must be GET or POST";

inline constexpr char requestTimedOut[] = "STAC request timed out";
inline constexpr char answerTooLarge[] = "STAC answer exceeds 64 MiB";
// %1 status code (0 when the reply carries none), %2 the exchange's error text.
inline constexpr char requestFailed[] = "STAC request failed (%1): %2";
// %1 the JSON parser's description of its error.
inline constexpr char invalidJson[] = "Invalid STAC JSON: %1";

inline constexpr char itemIdEmpty[] = "STAC item id is empty";
inline constexpr char assetMissing[] = "Requested STAC asset does not exist";
inline constexpr char assetNotCogCandidate[] = "Requested STAC asset is not an HTTP COG candidate";
inline constexpr char noCogAsset[] = "STAC item does not contain an HTTP COG asset";

} // namespace Norvane::Cloud::StacMessages

/* Flat interface of Norvane.Cloud: sixteen plain functions for hosts that do not use the C++ classes.
 *
 * Conventions shared by every function:
 * - Text arguments are zero-terminated UTF-16 (char16_t units), borrowed for the call only; a null pointer reads
 *   as empty text. They are taken unit for unit: a leading U+FEFF or U+FFFE is text, not a byte-order mark.
 * - Text results are written into a caller-owned buffer of char16_t units whose capacity (terminator included)
 *   the caller states. As much as fits is copied, always followed by a zero unit, and the full length of the
 *   result (terminator not counted) is returned. Pass a null buffer or capacity 0 to learn the length first; a
 *   return value of capacity or more means the text was cut. Each call repeats the whole operation. A result
 *   longer than 2147483647 units fails with "Result text is longer than 2147483647 UTF-16 units".
 * - Integer members of the documents read are taken exactly from their text, however written (25, 25.0, 2.5e1);
 *   a number that is not whole or does not fit in 64 bits counts as a member of the wrong kind.
 * - Failures return -1 (text functions), 0 (flag functions) or null (NorvaneCloud_CreateClient) and set the
 *   calling thread's last error, read with NorvaneCloud_LastError. On failure the buffer is left untouched.
 * - The library never allocates memory that the caller must free.
 * - Networked calls (the probes and the STAC functions) make a temporary Qt application object when the process
 *   has none; such calls then run one at a time across the process.
 */
#ifndef NORVANECLOUD_FLAT_H
#define NORVANECLOUD_FLAT_H

#include <norvanecloud/norvanecloud_export.h>

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#else
#include <uchar.h>
#endif

/* Opaque handle of one client: a range cache, one source of each format on it, default headers and a time-out. */
typedef struct NorvaneCloudClient NorvaneCloudClient;

/* Creates a client from a client options document ({"directory", "maximumMemoryBytes", "maximumDiskBytes",
 * "maximumAgeSeconds", "memoryEnabled", "diskEnabled"}); null or empty text means all defaults.
 * Returns null on failure, with the last error set. */
NORVANECLOUD_EXPORT NorvaneCloudClient *NorvaneCloud_CreateClient(const char16_t *optionsJson);

/* Destroys a client and everything it owns; cached entry files stay on disk. A null handle is ignored.
 * Leaves the last error as it was. */
NORVANECLOUD_EXPORT void NorvaneCloud_DestroyClient(NorvaneCloudClient *client);

/* Copies the calling thread's last-error text into buffer and returns its full length. Never changes it. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_LastError(char16_t *buffer, int32_t capacity);

/* Sets the network time-out of every exchange the client makes. Returns 1, or 0 on failure (milliseconds
 * below 1, null handle); the client is then unchanged. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_SetTimeout(NorvaneCloudClient *client, int32_t milliseconds);

/* Replaces the client's default request headers with a headers document ({"Name": "value", ...}); null or empty
 * text clears them. Returns 1, or 0 on failure. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_SetHeadersJson(NorvaneCloudClient *client, const char16_t *headersJson);

/* Empties the client's range cache, both tiers. Returns 1, or 0 on failure. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_ClearCache(NorvaneCloudClient *client);

/* Writes the cache statistics document. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_CacheStatisticsJson(
    NorvaneCloudClient *client, char16_t *buffer, int32_t capacity);

/* Writes the GDAL "/vsicurl/" path of an HTTP(S) COG URL as plain text. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_CogGdalVirtualPath(
    NorvaneCloudClient *client, const char16_t *url, char16_t *buffer, int32_t capacity);

/* Probes a COG URL (per-call headers document optional) and writes the COG probe document.
 * Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_CogProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity);

/* Writes the GDAL "/vsicurl/" path of an HTTP(S) GeoParquet URL. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_GeoParquetGdalVirtualPath(
    NorvaneCloudClient *client, const char16_t *url, char16_t *buffer, int32_t capacity);

/* Probes a GeoParquet URL and writes the GeoParquet probe document. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_GeoParquetProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity);

/* Writes the GDAL "/vsicurl/" path of an HTTP(S) PMTiles URL. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_PmTilesGdalVirtualPath(
    NorvaneCloudClient *client, const char16_t *url, char16_t *buffer, int32_t capacity);

/* Probes a PMTiles archive given as an HTTP(S) URL or a local file path and writes the PMTiles probe document.
 * Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_PmTilesInspectJson(NorvaneCloudClient *client,
    const char16_t *location,
    const char16_t *headersJson,
    char16_t *buffer,
    int32_t capacity);

/* Probes a PMTiles URL and writes the PMTiles probe document. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_PmTilesProbeJson(
    NorvaneCloudClient *client, const char16_t *url, const char16_t *headersJson, char16_t *buffer, int32_t capacity);

/* Searches the catalogue (search request document optional), takes the item at itemIndex (from 0) of the first
 * page and writes the COG layer document of the named asset, or of the best HTTP COG asset when assetKey is null
 * or empty. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_StacResolveCogLayerJson(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    const char16_t *assetKey,
    int32_t itemIndex,
    char16_t *buffer,
    int32_t capacity);

/* Searches the catalogue and writes the first page as a search result document. Returns its length, or -1. */
NORVANECLOUD_EXPORT int32_t NorvaneCloud_StacSearchJson(NorvaneCloudClient *client,
    const char16_t *catalogUrl,
    const char16_t *searchRequestJson,
    char16_t *buffer,
    int32_t capacity);

#ifdef __cplusplus
}
#endif

#endif /* NORVANECLOUD_FLAT_H */

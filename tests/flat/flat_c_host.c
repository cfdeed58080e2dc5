/* A host written in C that drives every flat function over a loopback server process, with no Qt application
 * object of its own.
 *
 * Usage: flat_c_host <port> <test data folder> <cache folder>            every check
 *        flat_c_host <port> <test data folder> <cache folder> churn <n> [<limit>]
 *            create, use and destroy n clients; with a limit, check that the resident size grows by less than
 *            limit KiB after the first tenth (leave it out under a memory checker, whose own use grows)
 */
#define _POSIX_C_SOURCE 200809L

#include <norvanecloud/flat.h>

#include <locale.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int checks;
static int failures;

#define CHECK(condition)                                                                                               \
    do {                                                                                                               \
        ++checks;                                                                                                      \
        if (!(condition)) {                                                                                            \
            ++failures;                                                                                                \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition);                              \
        }                                                                                                              \
    } while (0)

#define CHECK_TEXT(actual, expected)                                                                                   \
    do {                                                                                                               \
        const char *actual_ = (actual);                                                                                \
        ++checks;                                                                                                      \
        if (actual_ == NULL || strcmp(actual_, (expected)) != 0) {                                                     \
            ++failures;                                                                                                \
            fprintf(stderr, "%s:%d: got \"%s\", expected \"%s\"\n", __FILE__, __LINE__, actual_ ? actual_ : "(null)",  \
                (expected));                                                                                           \
        }                                                                                                              \
    } while (0)

#define CHECK_CONTAINS(actual, part)                                                                                   \
    do {                                                                                                               \
        const char *actual_ = (actual);                                                                                \
        ++checks;                                                                                                      \
        if (actual_ == NULL || strstr(actual_, (part)) == NULL) {                                                      \
            ++failures;                                                                                                \
            fprintf(stderr, "%s:%d: \"%.300s\" does not contain \"%s\"\n", __FILE__, __LINE__,                         \
                actual_ ? actual_ : "(null)", (part));                                                                 \
        }                                                                                                              \
    } while (0)

enum { TEXT_UNITS = 1024 };

static char server[64];
static const char *data_folder;
static const char *cache_folder;

/* UTF-8 to zero-terminated UTF-16 (the tests only pass characters of the basic plane). */
static void to_utf16(const char *utf8, char16_t *out, size_t capacity)
{
    size_t count = 0;
    const unsigned char *in = (const unsigned char *)utf8;
    while (*in != 0 && count + 1 < capacity) {
        unsigned int code = *in++;
        if (code >= 0xE0) {
            code = ((code & 0x0Fu) << 12) | ((in[0] & 0x3Fu) << 6) | (in[1] & 0x3Fu);
            in += 2;
        } else if (code >= 0xC0) {
            code = ((code & 0x1Fu) << 6) | (in[0] & 0x3Fu);
            in += 1;
        }
        out[count++] = (char16_t)code;
    }
    out[count] = 0;
}

/* UTF-16 to a new UTF-8 string (surrogate pairs included); the caller frees it. */
static char *to_utf8(const char16_t *in, int32_t length)
{
    char *out = malloc((size_t)length * 3 + 1);
    size_t count = 0;
    for (int32_t index = 0; index < length; ++index) {
        unsigned long code = in[index];
        if (code >= 0xD800 && code < 0xDC00 && index + 1 < length) {
            code = 0x10000 + ((code - 0xD800) << 10) + (in[++index] - 0xDC00);
            out[count++] = (char)(0xF0 | (code >> 18));
            out[count++] = (char)(0x80 | ((code >> 12) & 0x3F));
            out[count++] = (char)(0x80 | ((code >> 6) & 0x3F));
        } else if (code >= 0x800) {
            out[count++] = (char)(0xE0 | (code >> 12));
            out[count++] = (char)(0x80 | ((code >> 6) & 0x3F));
        } else if (code >= 0x80) {
            out[count++] = (char)(0xC0 | (code >> 6));
        }
        out[count++] = (char)(code < 0x80 ? code : (0x80 | (code & 0x3F)));
    }
    out[count] = 0;
    return out;
}

static char *last_error(void)
{
    const int32_t length = NorvaneCloud_LastError(NULL, 0);
    char16_t *buffer = calloc((size_t)length + 1, sizeof(char16_t));
    NorvaneCloud_LastError(buffer, length + 1);
    char *text = to_utf8(buffer, length);
    free(buffer);
    return text;
}

static void check_last_error(int line, const char *expected)
{
    char *text = last_error();
    ++checks;
    if (strcmp(text, expected) != 0) {
        ++failures;
        fprintf(stderr, "%s:%d: last error \"%s\", expected \"%s\"\n", __FILE__, line, text, expected);
    }
    free(text);
}
#define CHECK_LAST_ERROR(expected) check_last_error(__LINE__, (expected))

/* Runs a text function twice, first with BUF null and CAP 0 for the length, then with a buffer that fits; stores
 * the UTF-8 text in out (null after a failure). The call expression names BUF and CAP. */
#define FETCH(out, call)                                                                                               \
    do {                                                                                                               \
        char16_t *BUF = NULL;                                                                                          \
        int32_t CAP = 0;                                                                                               \
        const int32_t length_ = (call);                                                                                \
        (out) = NULL;                                                                                                  \
        if (length_ >= 0) {                                                                                            \
            CAP = length_ + 1;                                                                                         \
            BUF = calloc((size_t)CAP, sizeof(char16_t));                                                               \
            CHECK((call) == length_);                                                                                  \
            CHECK(BUF[length_] == 0);                                                                                  \
            (out) = to_utf8(BUF, length_);                                                                             \
            free(BUF);                                                                                                 \
        }                                                                                                              \
    } while (0)

static void url_of(const char *path, char16_t *out)
{
    char text[512];
    snprintf(text, sizeof text, "%s%s", server, path);
    to_utf16(text, out, TEXT_UNITS);
}

static NorvaneCloudClient *create_client(void)
{
    char options[600];
    char16_t options16[TEXT_UNITS];
    snprintf(options, sizeof options, "{\"directory\":\"%s\",\"maximumAgeSeconds\":0}", cache_folder);
    to_utf16(options, options16, TEXT_UNITS);
    NorvaneCloudClient *client = NorvaneCloud_CreateClient(options16);
    CHECK(client != NULL);
    return client;
}

static void test_client_management(void)
{
    static const char16_t empty[] = { 0 };
    NorvaneCloudClient *defaults[3]
        = { NorvaneCloud_CreateClient(NULL), NorvaneCloud_CreateClient(empty), NorvaneCloud_CreateClient(u"{}") };
    for (int index = 0; index < 3; ++index) {
        CHECK(defaults[index] != NULL);
        NorvaneCloud_DestroyClient(defaults[index]);
    }

    CHECK(NorvaneCloud_CreateClient(u"[]") == NULL);
    CHECK_LAST_ERROR("Cloud client options must be a JSON object");
    CHECK(NorvaneCloud_CreateClient(u"not json") == NULL);
    CHECK_LAST_ERROR("Cloud client options must be a JSON object");

    /* Size query, then a buffer of one unit: only the terminator, the full length returned. */
    char16_t small[8] = { 0x2222, 0x2222, 0x2222, 0x2222, 0x2222, 0x2222, 0x2222, 0x2222 };
    CHECK(NorvaneCloud_LastError(NULL, 0) == 42);
    CHECK(NorvaneCloud_LastError(small, 1) == 42);
    CHECK(small[0] == 0 && small[1] == 0x2222);
    CHECK(NorvaneCloud_LastError(small, 6) == 42);
    CHECK(small[0] == u'C' && small[4] == u'd' && small[5] == 0 && small[6] == 0x2222);

    NorvaneCloudClient *client = create_client();
    CHECK(NorvaneCloud_SetTimeout(NULL, 5000) == 0);
    CHECK_LAST_ERROR("Cloud client is null");
    CHECK(NorvaneCloud_SetTimeout(client, 0) == 0);
    CHECK_LAST_ERROR("HTTP timeout must be positive");
    CHECK(NorvaneCloud_SetTimeout(client, 15000) == 1);
    CHECK(NorvaneCloud_LastError(small, 8) == 0);
    CHECK(small[0] == 0);

    CHECK(NorvaneCloud_SetHeadersJson(NULL, u"[]") == 0);
    CHECK_LAST_ERROR("Cloud headers must be a JSON object");
    CHECK(NorvaneCloud_SetHeadersJson(NULL, u"{}") == 0);
    CHECK_LAST_ERROR("Cloud client is null");
    CHECK(NorvaneCloud_SetHeadersJson(client, NULL) == 1);

    CHECK(NorvaneCloud_ClearCache(NULL) == 0);
    CHECK_LAST_ERROR("Cloud client is null");
    NorvaneCloud_DestroyClient(NULL);
    CHECK_LAST_ERROR("Cloud client is null");

    char *statistics;
    FETCH(statistics, NorvaneCloud_CacheStatisticsJson(client, BUF, CAP));
    CHECK_TEXT(statistics,
        "{\"cacheBytesServed\":0,\"diskBytes\":0,\"diskHits\":0,\"evictions\":0,\"memoryBytes\":0,"
        "\"memoryHits\":0,\"misses\":0,\"networkBytes\":0,\"networkRequests\":0,\"writes\":0}");
    free(statistics);
    NorvaneCloud_DestroyClient(client);
}

static void test_gdal_paths(NorvaneCloudClient *client)
{
    char16_t url[TEXT_UNITS];
    char expected[512];
    char *path;

    url_of("/tiff/a b/\xc3\xa9.tif", url);
    FETCH(path, NorvaneCloud_CogGdalVirtualPath(client, url, BUF, CAP));
    snprintf(expected, sizeof expected, "/vsicurl/%s/tiff/a%%20b/%%C3%%A9.tif", server);
    CHECK_TEXT(path, expected);
    free(path);

    url_of("/parquet/geoparquet-point-wkb.parquet", url);
    FETCH(path, NorvaneCloud_GeoParquetGdalVirtualPath(client, url, BUF, CAP));
    snprintf(expected, sizeof expected, "/vsicurl/%s/parquet/geoparquet-point-wkb.parquet", server);
    CHECK_TEXT(path, expected);
    free(path);

    /* Capacity 5: four units and a terminator, the rest of the buffer untouched, the full length returned. */
    char16_t small[8] = { 0x2222, 0x2222, 0x2222, 0x2222, 0x2222, 0x2222, 0x2222, 0x2222 };
    url_of("/pmtiles/test-fixture-1-mvt-z0.pmtiles", url);
    const int32_t length = NorvaneCloud_PmTilesGdalVirtualPath(client, url, small, 5);
    CHECK(length == (int32_t)(strlen("/vsicurl/") + strlen(server) + strlen("/pmtiles/test-fixture-1-mvt-z0.pmtiles")));
    CHECK(small[0] == u'/' && small[1] == u'v' && small[2] == u's' && small[3] == u'i' && small[4] == 0);
    CHECK(small[5] == 0x2222);

    small[0] = 0x2222;
    CHECK(NorvaneCloud_CogGdalVirtualPath(client, NULL, small, 8) == -1);
    CHECK_LAST_ERROR("COG URL must use HTTP or HTTPS");
    CHECK(small[0] == 0x2222);
    CHECK(NorvaneCloud_GeoParquetGdalVirtualPath(client, NULL, small, 8) == -1);
    CHECK_LAST_ERROR("Cloud object URL must use HTTP or HTTPS");
    CHECK(NorvaneCloud_PmTilesGdalVirtualPath(client, u"/data/archive.pmtiles", small, 8) == -1);
    CHECK_LAST_ERROR("Cloud object URL must use HTTP or HTTPS");
}

static void test_probes(NorvaneCloudClient *client)
{
    char16_t url[TEXT_UNITS];
    char *document;

    url_of("/tiff/bigtiff-cog-le-ifd-at-16.tiff", url);
    FETCH(document, NorvaneCloud_CogProbeJson(client, url, NULL, BUF, CAP));
    CHECK_CONTAINS(document,
        "{\"acceptsRanges\":true,\"bigTiff\":true,\"byteOrder\":\"II\",\"cloudReadable\":true,"
        "\"contentLength\":394592,");
    CHECK_CONTAINS(document, "\"firstIfdNearStart\":true,\"firstIfdOffset\":16,\"tiffHeaderValid\":true,\"url\":\"");
    free(document);

    /* A readable object that is not a TIFF is a result, not a failure. */
    url_of("/parquet/geoparquet-point-wkb.parquet", url);
    FETCH(document, NorvaneCloud_CogProbeJson(client, url, u"{}", BUF, CAP));
    CHECK_CONTAINS(document, "\"byteOrder\":\"\",\"cloudReadable\":false,");
    CHECK_CONTAINS(document, "\"firstIfdOffset\":-1,");
    free(document);

    FETCH(document, NorvaneCloud_GeoParquetProbeJson(client, url, NULL, BUF, CAP));
    CHECK_CONTAINS(document, "{\"acceptsRanges\":true,\"cloudReadable\":true,\"contentLength\":1361,");
    CHECK_CONTAINS(document, "\"footerValid\":true,\"headerValid\":true,");
    free(document);

    url_of("/pmtiles/test-fixture-1-mvt-z0.pmtiles", url);
    FETCH(document, NorvaneCloud_PmTilesProbeJson(client, url, NULL, BUF, CAP));
    CHECK_CONTAINS(document, "\"remote\":true,");
    CHECK_CONTAINS(document, "\"specificationVersion\":3,");
    free(document);

    char path[512];
    char16_t path16[TEXT_UNITS];
    snprintf(path, sizeof path, "%s/pmtiles/test-fixture-1-mvt-z0.pmtiles", data_folder);
    to_utf16(path, path16, TEXT_UNITS);
    FETCH(document, NorvaneCloud_PmTilesInspectJson(client, path16, NULL, BUF, CAP));
    CHECK_CONTAINS(document, "\"remote\":false,");
    CHECK_CONTAINS(document, "\"url\":\"file:///");
    free(document);

    snprintf(path, sizeof path, "%s/pmtiles/no-such-archive.pmtiles", data_folder);
    to_utf16(path, path16, TEXT_UNITS);
    char16_t untouched[4] = { 0x2222, 0x2222, 0x2222, 0x2222 };
    CHECK(NorvaneCloud_PmTilesInspectJson(client, path16, NULL, untouched, 4) == -1);
    CHECK_LAST_ERROR("PMTiles local archive does not exist");
    CHECK(NorvaneCloud_PmTilesProbeJson(client, url, u"[\"Authorization\"]", untouched, 4) == -1);
    CHECK_LAST_ERROR("Cloud headers must be a JSON object");
    CHECK(untouched[0] == 0x2222);
}

/* The private object answers only "Authorization: Bearer flat": per-call headers replace the client's for one
 * call, and the next call sends the client's again. */
static void test_headers(NorvaneCloudClient *client)
{
    char16_t url[TEXT_UNITS];
    char *document;
    url_of("/private/cog.tif", url);

    CHECK(NorvaneCloud_CogProbeJson(client, url, NULL, NULL, 0) == -1);
    CHECK(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer flat\"}") == 1);
    FETCH(document, NorvaneCloud_CogProbeJson(client, url, NULL, BUF, CAP));
    CHECK_CONTAINS(document, "\"cloudReadable\":true,");
    free(document);

    CHECK(NorvaneCloud_CogProbeJson(client, url, u"{\"Authorization\":\"Bearer other\"}", NULL, 0) == -1);
    FETCH(document, NorvaneCloud_CogProbeJson(client, url, u"{\"X-Extra\":\"1\"}", BUF, CAP));
    CHECK(document != NULL);
    free(document);
    CHECK(NorvaneCloud_SetHeadersJson(client, NULL) == 1);
}

static void test_stac(NorvaneCloudClient *client)
{
    char16_t catalog[TEXT_UNITS];
    char *document;
    url_of("/stac", catalog);

    FETCH(
        document, NorvaneCloud_StacSearchJson(client, catalog, u"{\"collections\":[\"naip\"],\"limit\":10}", BUF, CAP));
    CHECK_CONTAINS(document, "{\"items\":[{\"assets\":{");
    CHECK_CONTAINS(document, "\"nextMethod\":\"POST\",\"nextPage\":\"");
    free(document);

    char16_t untouched[4] = { 0x2222, 0x2222, 0x2222, 0x2222 };
    CHECK(NorvaneCloud_StacSearchJson(client, NULL, u"[]", untouched, 4) == -1);
    CHECK_LAST_ERROR("STAC catalog URL is invalid");
    CHECK(NorvaneCloud_StacSearchJson(client, catalog, u"[]", untouched, 4) == -1);
    CHECK_LAST_ERROR("STAC search request must be a JSON object");
    CHECK(NorvaneCloud_StacSearchJson(client, catalog, u"{\"limit\":\"25\"}", untouched, 4) == -1);
    CHECK_LAST_ERROR("STAC search limit must be positive");
    CHECK(untouched[0] == 0x2222);

    FETCH(document, NorvaneCloud_StacResolveCogLayerJson(client, catalog, NULL, NULL, 0, BUF, CAP));
    char expected[512];
    snprintf(expected, sizeof expected, "\"sourceUrl\":\"%s/tiff/bigtiff-cog-le-ifd-at-16.tiff\"", server);
    CHECK_CONTAINS(document, "{\"assetKey\":\"image\",\"assetMetadata\":{");
    CHECK_CONTAINS(document, expected);
    CHECK_CONTAINS(document, "\"requestHeaders\":{},");
    free(document);

    CHECK(NorvaneCloud_StacResolveCogLayerJson(client, catalog, NULL, NULL, -1, NULL, 0) == -1);
    CHECK_LAST_ERROR("STAC item index is out of range");
    CHECK(NorvaneCloud_StacResolveCogLayerJson(client, catalog, NULL, u"image", 10, NULL, 0) == -1);
    CHECK_LAST_ERROR("STAC item index is out of range");
    url_of("/empty", catalog);
    CHECK(NorvaneCloud_StacResolveCogLayerJson(client, catalog, NULL, NULL, 0, NULL, 0) == -1);
    CHECK_LAST_ERROR("STAC item index is out of range");
}

static void test_cache(NorvaneCloudClient *client)
{
    char *statistics;
    FETCH(statistics, NorvaneCloud_CacheStatisticsJson(client, BUF, CAP));
    CHECK(statistics != NULL && strstr(statistics, "\"memoryBytes\":0,") == NULL);
    CHECK(statistics != NULL && strstr(statistics, "\"networkRequests\":0,") == NULL);
    free(statistics);

    CHECK(NorvaneCloud_ClearCache(client) == 1);
    FETCH(statistics, NorvaneCloud_CacheStatisticsJson(client, BUF, CAP));
    CHECK_CONTAINS(statistics, "\"diskBytes\":0,");
    CHECK_CONTAINS(statistics, "\"memoryBytes\":0,");
    free(statistics);
}

struct ThreadErrors {
    int32_t lengthAtStart;
    char *message;
};

static void *fail_on_other_thread(void *argument)
{
    struct ThreadErrors *errors = argument;
    errors->lengthAtStart = NorvaneCloud_LastError(NULL, 0);
    NorvaneCloud_ClearCache(NULL);
    errors->message = last_error();
    return NULL;
}

static void test_last_error_per_thread(void)
{
    CHECK(NorvaneCloud_SetHeadersJson(NULL, u"[1]") == 0);
    struct ThreadErrors errors = { -1, NULL };
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, fail_on_other_thread, &errors) == 0);
    pthread_join(thread, NULL);
    CHECK(errors.lengthAtStart == 0);
    CHECK_TEXT(errors.message, "Cloud client is null");
    free(errors.message);
    CHECK_LAST_ERROR("Cloud headers must be a JSON object");
}

struct NetworkedCall {
    NorvaneCloudClient *client;
    const char16_t *url;
    int stac;
    int32_t result;
};

static void *networked_call(void *argument)
{
    struct NetworkedCall *call = argument;
    call->result = call->stac ? NorvaneCloud_StacSearchJson(call->client, call->url, NULL, NULL, 0)
                              : NorvaneCloud_CogProbeJson(call->client, call->url, NULL, NULL, 0);
    return NULL;
}

/* With no application object in the process, each networked call makes a temporary one; calls on two threads
 * at once must neither crash nor deadlock, whatever the interleaving. */
static void test_concurrent_networked_calls(void)
{
    NorvaneCloudClient *first = create_client();
    NorvaneCloudClient *second = create_client();
    char16_t cog[TEXT_UNITS];
    char16_t parquet[TEXT_UNITS];
    char16_t catalog[TEXT_UNITS];
    url_of("/tiff/geotiff-strip-51px-ifd-at-8.tif", cog);
    url_of("/parquet/geoparquet-point-wkb.parquet", parquet);
    url_of("/stac", catalog);

    int succeeded = 0;
    const int rounds = 60;
    for (int round = 0; round < rounds; ++round) {
        struct NetworkedCall calls[2] = {
            { first, round % 3 == 2 ? catalog : cog, round % 3 == 2, 0 },
            /* Every other round both threads share one client. */
            { round % 2 ? first : second, parquet, 0, 0 },
        };
        pthread_t threads[2];
        for (int index = 0; index < 2; ++index)
            CHECK(pthread_create(&threads[index], NULL, networked_call, &calls[index]) == 0);
        for (int index = 0; index < 2; ++index)
            pthread_join(threads[index], NULL);
        if (calls[0].result > 0 && calls[1].result > 0)
            ++succeeded;
    }
    CHECK(succeeded == rounds);
    NorvaneCloud_DestroyClient(first);
    NorvaneCloud_DestroyClient(second);
}

static long resident_kilobytes(void)
{
    long pages = 0;
    long resident = 0;
    FILE *statm = fopen("/proc/self/statm", "r");
    if (statm == NULL)
        return -1;
    if (fscanf(statm, "%ld %ld", &pages, &resident) != 2)
        resident = -1;
    fclose(statm);
    return resident * 4;
}

/* Creates, uses and destroys clients; the resident size after the first tenth is the baseline. */
static void churn(int count, long growth_limit_kilobytes)
{
    char16_t cog[TEXT_UNITS];
    url_of("/tiff/geotiff-strip-51px-ifd-at-8.tif", cog);
    char16_t buffer[TEXT_UNITS];
    long baseline = -1;
    for (int index = 0; index < count; ++index) {
        NorvaneCloudClient *client = create_client();
        CHECK(NorvaneCloud_SetHeadersJson(client, u"{\"X-Round\":\"1\"}") == 1);
        CHECK(NorvaneCloud_CogProbeJson(client, cog, NULL, buffer, TEXT_UNITS) > 0);
        CHECK(NorvaneCloud_CacheStatisticsJson(client, buffer, TEXT_UNITS) > 0);
        CHECK(NorvaneCloud_CogGdalVirtualPath(client, cog, buffer, TEXT_UNITS) > 0);
        CHECK(NorvaneCloud_ClearCache(client) == 1);
        NorvaneCloud_DestroyClient(client);
        if (index + 1 == count / 10)
            baseline = resident_kilobytes();
    }
    const long final = resident_kilobytes();
    printf("churn: %d clients, resident %ld KiB after %d, %ld KiB at the end\n", count, baseline, count / 10, final);
    if (growth_limit_kilobytes > 0)
        CHECK(baseline > 0 && final - baseline < growth_limit_kilobytes);
}

int main(int argc, char **argv)
{
    const int churning = argc >= 6 && argc <= 7 && strcmp(argv[4], "churn") == 0;
    if (argc != 4 && !churning) {
        fprintf(stderr, "usage: flat_c_host <port> <test data folder> <cache folder> [churn <count> [<limit>]]\n");
        return 2;
    }
    snprintf(server, sizeof server, "http://127.0.0.1:%s", argv[1]);
    data_folder = argv[2];
    cache_folder = argv[3];

    if (churning) {
        churn(atoi(argv[5]), argc == 7 ? atol(argv[6]) : 0);
    } else {
        test_client_management();
        NorvaneCloudClient *client = create_client();
        /* The temporary application objects of networked calls leave the host's C locale alone. */
        CHECK(strcmp(setlocale(LC_ALL, NULL), "C") == 0);
        test_gdal_paths(client);
        test_probes(client);
        test_headers(client);
        test_stac(client);
        test_cache(client);
        CHECK(strcmp(setlocale(LC_ALL, NULL), "C") == 0);
        NorvaneCloud_DestroyClient(client);
        test_last_error_per_thread();
        test_concurrent_networked_calls();
    }
    printf("C host: %d checks, %d failed\n", checks, failures);
    return failures == 0 ? 0 : 1;
}

/* A host written in C, with no Qt application object, that drives every flat function over a loopback server.
 * Usage: flat_c_host <port> <test data folder> <cache folder> [churn <n> [<limit>]]
 * With churn: creates, uses and destroys n clients; with a limit, the resident size may grow by less than limit KiB
 * after the first tenth (left out under a memory checker, whose own use grows). */
#define _POSIX_C_SOURCE 200809L

#include <norvanecloud/flat.h>

#include <locale.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { UNITS = 1024, FILL = 0x2222 };

static int checks, failures;
static char server[64];
static const char *data_folder, *cache_folder;

static void check(int ok, int line, const char *what)
{
    ++checks;
    if (!ok) {
        ++failures;
        fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, line, what);
    }
}
#define CHECK(condition) check((condition) != 0, __LINE__, #condition)

/* Checks that text equals (exact) or contains each of the parts that follow, up to a null; frees text. */
static void check_text(int line, char *text, int exact, ...)
{
    va_list parts;
    va_start(parts, exact);
    for (const char *part = va_arg(parts, const char *); part != NULL; part = va_arg(parts, const char *)) {
        ++checks;
        if (text == NULL || (exact ? strcmp(text, part) != 0 : strstr(text, part) == NULL)) {
            ++failures;
            fprintf(stderr, "%s:%d: \"%.300s\" %s \"%s\"\n", __FILE__, line, text ? text : "(failed)",
                exact ? "is not" : "lacks", part);
        }
    }
    va_end(parts);
    free(text);
}
#define CHECK_EQUAL(text, expected) check_text(__LINE__, (text), 1, (expected), (const char *)NULL)
#define CHECK_CONTAINS(text, ...) check_text(__LINE__, (text), 0, __VA_ARGS__, (const char *)NULL)

/* UTF-16 as new 8-bit text for the checks: ASCII kept, any other unit shown as '?'. */
static char *narrow(const char16_t *units, int32_t length)
{
    char *text = malloc((size_t)length + 1);
    for (int32_t index = 0; index < length; ++index)
        text[index] = units[index] < 0x80 ? (char)units[index] : '?';
    text[length] = 0;
    return text;
}

static char *last_error(void)
{
    char16_t buffer[UNITS];
    return narrow(buffer, NorvaneCloud_LastError(buffer, UNITS));
}
#define CHECK_LAST_ERROR(expected) CHECK_EQUAL(last_error(), (expected))

/* ASCII text made from a format as zero-terminated UTF-16, in rotating buffers that outlive their statement. */
static const char16_t *u16(const char *format, ...)
{
    static char16_t buffers[8][UNITS];
    static int next;
    char16_t *units = buffers[next++ % 8];
    char text[UNITS];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    for (size_t count = 0; (units[count] = (unsigned char)text[count]) != 0; ++count) { }
    return units;
}
#define URL(path) u16("%s%s", server, (path))

/* FETCH(call): a size query (the call with BUF null and CAP 0), then the call with a buffer that fits. Yields the
 * text, or null after a failure. */
static char16_t *BUF;
static int32_t CAP, size_query;

static char16_t *sized(int32_t length)
{
    size_query = length;
    CAP = length + 1;
    return length < 0 ? NULL : calloc((size_t)CAP, sizeof(char16_t));
}

static char *fetched(int32_t length, int line)
{
    char *text = NULL;
    if (BUF != NULL) {
        check(length == size_query && BUF[length] == 0, line, "second call gives the queried length");
        text = narrow(BUF, length);
    }
    free(BUF);
    BUF = NULL;
    CAP = 0;
    return text;
}
#define FETCH(call) ((BUF = sized(call)), fetched(BUF ? (call) : -1, __LINE__))

static void fill(char16_t *buffer, int count)
{
    for (int index = 0; index < count; ++index)
        buffer[index] = FILL;
}

static NorvaneCloudClient *create_client(void)
{
    NorvaneCloudClient *client
        = NorvaneCloud_CreateClient(u16("{\"directory\":\"%s\",\"maximumAgeSeconds\":0}", cache_folder));
    CHECK(client != NULL);
    return client;
}

static void test_client_management(void)
{
    const char16_t *defaults[] = { NULL, u"", u"{}" };
    for (int index = 0; index < 3; ++index) {
        NorvaneCloudClient *client = NorvaneCloud_CreateClient(defaults[index]);
        CHECK(client != NULL);
        NorvaneCloud_DestroyClient(client);
    }
    CHECK(NorvaneCloud_CreateClient(u"[]") == NULL);
    CHECK_LAST_ERROR("Cloud client options must be a JSON object");

    /* Size query; capacity 1 stores only the terminator; both return the full length. */
    char16_t small[8];
    fill(small, 8);
    CHECK(NorvaneCloud_LastError(NULL, 0) == 42);
    CHECK(NorvaneCloud_LastError(small, 1) == 42 && small[0] == 0 && small[1] == FILL);
    CHECK(NorvaneCloud_LastError(small, 6) == 42 && small[4] == u'd' && small[5] == 0 && small[6] == FILL);

    NorvaneCloudClient *client = create_client();
    CHECK(NorvaneCloud_SetTimeout(NULL, 5000) == 0);
    CHECK_LAST_ERROR("Cloud client is null");
    CHECK(NorvaneCloud_SetTimeout(client, 0) == 0);
    CHECK_LAST_ERROR("HTTP timeout must be positive");
    /* A success clears the last error: length 0, a single zero unit stored. */
    CHECK(NorvaneCloud_SetTimeout(client, 15000) == 1);
    CHECK(NorvaneCloud_LastError(small, 8) == 0 && small[0] == 0);

    /* The headers document is read before the handle is looked at. */
    CHECK(NorvaneCloud_SetHeadersJson(NULL, u"[]") == 0);
    CHECK_LAST_ERROR("Cloud headers must be a JSON object");
    CHECK(NorvaneCloud_SetHeadersJson(NULL, u"{}") == 0);
    CHECK_LAST_ERROR("Cloud client is null");
    CHECK(NorvaneCloud_SetHeadersJson(client, NULL) == 1);
    CHECK(NorvaneCloud_ClearCache(NULL) == 0);
    NorvaneCloud_DestroyClient(NULL);
    CHECK_LAST_ERROR("Cloud client is null");

    CHECK_EQUAL(FETCH(NorvaneCloud_CacheStatisticsJson(client, BUF, CAP)),
        "{\"cacheBytesServed\":0,\"diskBytes\":0,\"diskHits\":0,\"evictions\":0,\"memoryBytes\":0,"
        "\"memoryHits\":0,\"misses\":0,\"networkBytes\":0,\"networkRequests\":0,\"writes\":0}");
    NorvaneCloud_DestroyClient(client);
}

static void test_gdal_paths(NorvaneCloudClient *client)
{
    char expected[256];
    snprintf(expected, sizeof expected, "/vsicurl/%s/tiff/a%%20b/c.tif", server);
    CHECK_EQUAL(FETCH(NorvaneCloud_CogGdalVirtualPath(client, URL("/tiff/a b/c.tif"), BUF, CAP)), expected);
    snprintf(expected, sizeof expected, "/vsicurl/%s/p.parquet", server);
    CHECK_EQUAL(FETCH(NorvaneCloud_GeoParquetGdalVirtualPath(client, URL("/p.parquet"), BUF, CAP)), expected);

    /* Capacity 5: four units and a terminator, the rest of the buffer untouched, the full length returned. */
    char16_t small[8];
    fill(small, 8);
    CHECK(NorvaneCloud_PmTilesGdalVirtualPath(client, URL("/t.pmtiles"), small, 5)
        == (int32_t)(strlen("/vsicurl/") + strlen(server) + strlen("/t.pmtiles")));
    CHECK(small[0] == u'/' && small[3] == u'i' && small[4] == 0 && small[5] == FILL);

    /* A refused URL: -1, the message, the buffer untouched. */
    fill(small, 8);
    CHECK(NorvaneCloud_CogGdalVirtualPath(client, NULL, small, 8) == -1);
    CHECK_LAST_ERROR("COG URL must use HTTP or HTTPS");
    CHECK(NorvaneCloud_GeoParquetGdalVirtualPath(client, NULL, small, 8) == -1);
    CHECK_LAST_ERROR("Cloud object URL must use HTTP or HTTPS");
    CHECK(NorvaneCloud_PmTilesGdalVirtualPath(client, u"/data/archive.pmtiles", small, 8) == -1);
    CHECK_LAST_ERROR("Cloud object URL must use HTTP or HTTPS");
    CHECK(small[0] == FILL);
}

static void test_probes(NorvaneCloudClient *client)
{
    CHECK_CONTAINS(FETCH(NorvaneCloud_CogProbeJson(client, URL("/tiff/bigtiff-cog-le-ifd-at-16.tiff"), NULL, BUF, CAP)),
        "{\"acceptsRanges\":true,\"bigTiff\":true,\"byteOrder\":\"II\",\"cloudReadable\":true,\"contentLength\":"
        "394592,",
        "\"firstIfdNearStart\":true,\"firstIfdOffset\":16,\"tiffHeaderValid\":true,\"url\":\"");
    /* A readable object that is not a TIFF is a result, not a failure. */
    const char16_t *parquet = URL("/parquet/geoparquet-point-wkb.parquet");
    CHECK_CONTAINS(FETCH(NorvaneCloud_CogProbeJson(client, parquet, u"{}", BUF, CAP)),
        "\"byteOrder\":\"\",\"cloudReadable\":false,", "\"firstIfdOffset\":-1,");
    CHECK_CONTAINS(FETCH(NorvaneCloud_GeoParquetProbeJson(client, parquet, NULL, BUF, CAP)),
        "{\"acceptsRanges\":true,\"cloudReadable\":true,\"contentLength\":1361,",
        "\"footerValid\":true,\"headerValid\":true,");
    CHECK_CONTAINS(
        FETCH(NorvaneCloud_PmTilesProbeJson(client, URL("/pmtiles/test-fixture-1-mvt-z0.pmtiles"), NULL, BUF, CAP)),
        "\"remote\":true,", "\"specificationVersion\":3,");
    const char16_t *archive = u16("%s/pmtiles/test-fixture-1-mvt-z0.pmtiles", data_folder);
    CHECK_CONTAINS(FETCH(NorvaneCloud_PmTilesInspectJson(client, archive, NULL, BUF, CAP)), "\"remote\":false,",
        "\"url\":\"file:///");

    char16_t untouched[4];
    fill(untouched, 4);
    archive = u16("%s/pmtiles/no-such-archive.pmtiles", data_folder);
    CHECK(NorvaneCloud_PmTilesInspectJson(client, archive, NULL, untouched, 4) == -1);
    CHECK_LAST_ERROR("PMTiles local archive does not exist");
    CHECK(untouched[0] == FILL);
}

/* The private object answers only "Authorization: Bearer flat": per-call headers replace the client's for one
 * call, are merged with them otherwise, and never change them. */
static void test_headers(NorvaneCloudClient *client)
{
    const char16_t *private_cog = URL("/private/cog.tif");
    CHECK(NorvaneCloud_CogProbeJson(client, private_cog, NULL, NULL, 0) == -1);
    CHECK(NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer flat\"}") == 1);
    CHECK_CONTAINS(FETCH(NorvaneCloud_CogProbeJson(client, private_cog, NULL, BUF, CAP)), "\"cloudReadable\":true,");
    CHECK(NorvaneCloud_CogProbeJson(client, private_cog, u"{\"Authorization\":\"Bearer other\"}", NULL, 0) == -1);
    CHECK(NorvaneCloud_CogProbeJson(client, private_cog, u"{\"X-Extra\":\"1\"}", NULL, 0) > 0);
    CHECK(NorvaneCloud_SetHeadersJson(client, NULL) == 1);
}

static void test_stac(NorvaneCloudClient *client)
{
    const char16_t *catalogue = URL("/stac");
    CHECK_CONTAINS(FETCH(NorvaneCloud_StacSearchJson(client, catalogue, u"{\"limit\":10}", BUF, CAP)),
        "{\"items\":[{\"assets\":{", "\"nextMethod\":\"POST\",\"nextPage\":\"");
    char source[256];
    snprintf(source, sizeof source, "\"sourceUrl\":\"%s/tiff/bigtiff-cog-le-ifd-at-16.tiff\"", server);
    CHECK_CONTAINS(FETCH(NorvaneCloud_StacResolveCogLayerJson(client, catalogue, NULL, NULL, 0, BUF, CAP)),
        "{\"assetKey\":\"image\",\"assetMetadata\":{", "\"requestHeaders\":{},", source);

    /* The index is checked before the asset: an unknown key does not change the message. */
    char16_t untouched[4];
    fill(untouched, 4);
    CHECK(NorvaneCloud_StacResolveCogLayerJson(client, catalogue, NULL, u"none", -1, untouched, 4) == -1);
    CHECK_LAST_ERROR("STAC item index is out of range");
    CHECK(NorvaneCloud_StacResolveCogLayerJson(client, catalogue, NULL, u"none", 10, untouched, 4) == -1);
    CHECK_LAST_ERROR("STAC item index is out of range");
    CHECK(NorvaneCloud_StacResolveCogLayerJson(client, URL("/empty"), NULL, NULL, 0, untouched, 4) == -1);
    CHECK_LAST_ERROR("STAC item index is out of range");
    CHECK(untouched[0] == FILL);
}

static void test_cache(NorvaneCloudClient *client)
{
    char *statistics = FETCH(NorvaneCloud_CacheStatisticsJson(client, BUF, CAP));
    CHECK(statistics != NULL && strstr(statistics, "\"memoryBytes\":0,") == NULL);
    CHECK(statistics != NULL && strstr(statistics, "\"networkRequests\":0,") == NULL);
    free(statistics);
    CHECK(NorvaneCloud_ClearCache(client) == 1);
    CHECK_CONTAINS(FETCH(NorvaneCloud_CacheStatisticsJson(client, BUF, CAP)), "\"diskBytes\":0,", "\"memoryBytes\":0,");
}

static void *fail_on_other_thread(void *seen)
{
    ((int32_t *)seen)[0] = NorvaneCloud_LastError(NULL, 0);
    NorvaneCloud_ClearCache(NULL);
    ((int32_t *)seen)[1] = NorvaneCloud_LastError(NULL, 0);
    return NULL;
}

static void test_last_error_per_thread(void)
{
    CHECK(NorvaneCloud_SetHeadersJson(NULL, u"[1]") == 0);
    int32_t seen[2] = { -1, -1 };
    pthread_t thread;
    CHECK(pthread_create(&thread, NULL, fail_on_other_thread, seen) == 0);
    pthread_join(thread, NULL);
    CHECK(seen[0] == 0 && seen[1] == (int32_t)strlen("Cloud client is null"));
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
    const char16_t *cog = URL("/tiff/geotiff-strip-51px-ifd-at-8.tif");
    const char16_t *parquet = URL("/parquet/geoparquet-point-wkb.parquet");
    const char16_t *catalogue = URL("/stac");
    int succeeded = 0;
    const int rounds = 60;
    for (int round = 0; round < rounds; ++round) {
        struct NetworkedCall calls[2] = {
            { first, round % 3 == 2 ? catalogue : cog, round % 3 == 2, 0 },
            /* Every other round both threads share one client. */
            { round % 2 ? first : second, parquet, 0, 0 },
        };
        pthread_t threads[2];
        for (int index = 0; index < 2; ++index)
            CHECK(pthread_create(&threads[index], NULL, networked_call, &calls[index]) == 0);
        for (int index = 0; index < 2; ++index)
            pthread_join(threads[index], NULL);
        succeeded += calls[0].result > 0 && calls[1].result > 0;
    }
    CHECK(succeeded == rounds);
    NorvaneCloud_DestroyClient(first);
    NorvaneCloud_DestroyClient(second);
}

static long resident_kilobytes(void)
{
    long pages = 0, resident = -1;
    FILE *statm = fopen("/proc/self/statm", "r");
    if (statm == NULL || fscanf(statm, "%ld %ld", &pages, &resident) != 2)
        resident = -1;
    if (statm != NULL)
        fclose(statm);
    return resident * 4;
}

/* Creates, uses and destroys clients; the resident size after the first tenth is the baseline. */
static void churn(int count, long growth_limit_kilobytes)
{
    char16_t cog[UNITS], buffer[UNITS];
    memcpy(cog, URL("/tiff/geotiff-strip-51px-ifd-at-8.tif"), sizeof cog);
    long baseline = -1;
    for (int index = 0; index < count; ++index) {
        NorvaneCloudClient *client = create_client();
        CHECK(NorvaneCloud_SetHeadersJson(client, u"{\"X-Round\":\"1\"}") == 1);
        CHECK(NorvaneCloud_CogProbeJson(client, cog, NULL, buffer, UNITS) > 0);
        CHECK(NorvaneCloud_CacheStatisticsJson(client, buffer, UNITS) > 0);
        CHECK(NorvaneCloud_CogGdalVirtualPath(client, cog, buffer, UNITS) > 0);
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
        test_gdal_paths(client);
        test_probes(client);
        test_headers(client);
        test_stac(client);
        test_cache(client);
        /* The temporary application objects of networked calls leave the host's C locale alone. */
        CHECK(strcmp(setlocale(LC_ALL, NULL), "C") == 0);
        NorvaneCloud_DestroyClient(client);
        test_last_error_per_thread();
        test_concurrent_networked_calls();
    }
    printf("C host: %d checks, %d failed\n", checks, failures);
    return failures == 0 ? 0 : 1;
}

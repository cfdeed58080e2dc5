/* A host written in C that owns no Qt application object, so every networked call makes a temporary one; two
 * threads churn clients meanwhile, and a memory checker's leak report at exit shows in the exit code.
 * Usage: flat_c_host <object server URL> <catalogue URL> <cache folder> <local PMTiles archive>
 * Prints each failed check and "<n> failed"; exits with 0 only when nothing failed. */
#define _POSIX_C_SOURCE 200809L

#include <norvanecloud/flat.h>

#include <locale.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>

enum { UNITS = 1024, CLIENTS = 100 };
static char16_t options[UNITS], cog[UNITS], parquet[UNITS], pmtiles[UNITS], archive[UNITS], stac[UNITS];
static char16_t buffer[1 << 17];
static char text[1 << 17];
static int failures, churned, churners;
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;

/* ASCII text from a format with one text argument, as zero-terminated UTF-16. */
static void u16(char16_t *units, const char *format, const char *argument)
{
    char ascii[UNITS];
    snprintf(ascii, sizeof ascii, format, argument);
    for (int index = 0; (units[index] = (unsigned char)ascii[index]) != 0; ++index) { }
}

/* A call that must succeed with a text holding the fragment. */
static void expect(const char *label, int32_t result, const char *fragment)
{
    const char16_t *units = buffer;
    char16_t error[UNITS];
    if (result < 0 && NorvaneCloud_LastError(error, UNITS) >= 0)
        units = error;
    int length = 0;
    for (; units[length] != 0; ++length)
        text[length] = units[length] < 0x80 ? (char)units[length] : '?';
    text[length] = 0;
    if (result < 0 || strstr(text, fragment) == NULL)
        failures += printf("%s: %d %.300s\n", label, (int)result, text) > 0;
}

/* Clients created, used and destroyed; the leak check at exit sees any of them left behind. The thread then stays
 * parked until the process ends: Qt keeps data for every thread that ran an event loop and sometimes loses it when
 * such a thread exits, which would hide a leak of ours among Qt's. */
static void *churn(void *unused)
{
    (void)unused;
    char16_t units[UNITS];
    int succeeded = 0;
    for (int index = 0; index < CLIENTS; ++index) {
        NorvaneCloudClient *client = NorvaneCloud_CreateClient(options);
        succeeded += NorvaneCloud_SetHeadersJson(client, u"{\"X-Round\":\"1\"}") == 1
            && NorvaneCloud_CogProbeJson(client, cog, NULL, units, UNITS) > 0
            && NorvaneCloud_CacheStatisticsJson(client, units, UNITS) > 0;
        NorvaneCloud_DestroyClient(client);
    }
    pthread_mutex_lock(&lock);
    churned += succeeded;
    ++churners;
    pthread_cond_broadcast(&changed);
    for (;;)
        pthread_cond_wait(&changed, &lock);
    return NULL;
}

int main(int argc, char **argv)
{
    if (argc != 5)
        return 2;
    u16(options, "{\"directory\":\"%s\"}", argv[3]);
    u16(cog, "%s/tiff/bigtiff-cog-le-ifd-at-16.tiff", argv[1]);
    u16(parquet, "%s/parquet/geoparquet-point-wkb.parquet", argv[1]);
    u16(pmtiles, "%s/pmtiles/test-fixture-1-mvt-z0.pmtiles", argv[1]);
    u16(archive, "%s", argv[4]);
    u16(stac, "%s", argv[2]);
    for (int index = 0; index < 2; ++index) {
        pthread_t thread;
        pthread_create(&thread, NULL, churn, NULL);
        pthread_detach(thread);
    }

    NorvaneCloudClient *client = NorvaneCloud_CreateClient(options);
    const int32_t capacity = (int32_t)(sizeof buffer / sizeof buffer[0]);
    expect("COG probe", NorvaneCloud_CogProbeJson(client, cog, NULL, buffer, capacity),
        "\"bigTiff\":true,\"byteOrder\":\"II\",\"cloudReadable\":true,");
    expect("GeoParquet probe", NorvaneCloud_GeoParquetProbeJson(client, parquet, NULL, buffer, capacity),
        "\"footerValid\":true,\"headerValid\":true,");
    expect("PMTiles probe", NorvaneCloud_PmTilesProbeJson(client, pmtiles, NULL, buffer, capacity), "\"remote\":true,");
    expect("PMTiles inspection", NorvaneCloud_PmTilesInspectJson(client, archive, NULL, buffer, capacity),
        "\"remote\":false,");
    NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer t\"}");
    expect("STAC search", NorvaneCloud_StacSearchJson(client, stac, NULL, buffer, capacity), "{\"items\":[{");
    expect("STAC layer", NorvaneCloud_StacResolveCogLayerJson(client, stac, NULL, NULL, 3, buffer, capacity),
        "\"itemId\":\"mt_m_4911557_sw_11_060_20231117_20240103\"");
    NorvaneCloud_DestroyClient(client);

    pthread_mutex_lock(&lock);
    while (churners < 2)
        pthread_cond_wait(&changed, &lock);
    if (churned != 2 * CLIENTS)
        failures += printf("churn: %d of %d clients worked\n", churned, 2 * CLIENTS) > 0;
    pthread_mutex_unlock(&lock);
    /* Temporary application objects leave the host's locale as it was. */
    if (strcmp(setlocale(LC_ALL, NULL), "C") != 0)
        failures += printf("locale: %s\n", setlocale(LC_ALL, NULL)) > 0;
    printf("%d failed\n", failures);
    return failures != 0;
}

/* A host written in C that owns no Qt application object, so every networked call makes a temporary one; two
 * threads churn clients meanwhile, and a memory checker's leak report at exit shows in the exit code. Calling all
 * sixteen functions, it links only when the library exports each of them under its plain name.
 * Usage: flat_c_host <object server URL> <catalogue URL> <local PMTiles archive>, with the cache folder taken from
 * the environment. Prints each failed check and "<n> failed"; exits with 0 only when nothing failed. */
#define _POSIX_C_SOURCE 200809L

#include <norvanecloud/flat.h>

#include <locale.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

enum { UNITS = 1 << 17, CLIENTS = 100 };
static char16_t cog[1024], url[1024], buffer[UNITS];
static int failures, succeeded[2];
static sem_t churned;

/* ASCII text from a format with one text argument, as zero-terminated UTF-16. */
static const char16_t *u16(char16_t *units, const char *format, const char *argument)
{
    char ascii[1024];
    snprintf(ascii, sizeof ascii, format, argument);
    for (int index = 0; (units[index] = (unsigned char)ascii[index]) != 0; ++index) { }
    return units;
}

/* A call that must succeed with a text holding the fragment. */
static void expect(int32_t result, const char *fragment)
{
    static char text[UNITS];
    for (int index = 0; (text[index] = (char)(buffer[index] & 0x7f)) != 0; ++index) { }
    failures += (result < 0 || strstr(text, fragment) == NULL) && printf("%d without %s\n", (int)result, fragment);
}

/* Clients created, used and destroyed; the leak check at exit sees any of them left behind. The thread then stays
 * parked until the process ends: Qt keeps data for every thread that ran an event loop and sometimes loses it when
 * such a thread exits, which would hide a leak of ours among Qt's. */
static void *churn(void *count)
{
    for (int index = 0; index < CLIENTS; ++index) {
        NorvaneCloudClient *client = NorvaneCloud_CreateClient(NULL);
        *(int *)count += NorvaneCloud_SetHeadersJson(client, u"{\"X-Round\":\"1\"}") == 1
            && NorvaneCloud_CogProbeJson(client, cog, NULL, NULL, 0) > 0
            && NorvaneCloud_CacheStatisticsJson(client, NULL, 0) > 0;
        NorvaneCloud_DestroyClient(client);
    }
    sem_post(&churned);
    for (;;)
        pause();
    return NULL;
}

int main(int argc, char **argv)
{
    (void)argc;
    u16(cog, "%s/tiff/bigtiff-cog-le-ifd-at-16.tiff", argv[1]);
    sem_init(&churned, 0, 0);
    pthread_t thread;
    for (int index = 0; index < 2; ++index)
        pthread_create(&thread, NULL, churn, &succeeded[index]);

    NorvaneCloudClient *client = NorvaneCloud_CreateClient(NULL);
    failures += NorvaneCloud_SetTimeout(client, 60000) + NorvaneCloud_ClearCache(client) != 2;
    expect(NorvaneCloud_CogGdalVirtualPath(client, cog, buffer, UNITS), "/vsicurl/http");
    expect(NorvaneCloud_GeoParquetGdalVirtualPath(client, cog, buffer, UNITS), "/vsicurl/http");
    expect(NorvaneCloud_PmTilesGdalVirtualPath(client, cog, buffer, UNITS), "/vsicurl/http");
    expect(NorvaneCloud_CogProbeJson(client, cog, NULL, buffer, UNITS),
        "\"bigTiff\":true,\"byteOrder\":\"II\",\"cloudReadable\":true,");
    u16(url, "%s/parquet/geoparquet-point-wkb.parquet", argv[1]);
    expect(NorvaneCloud_GeoParquetProbeJson(client, url, NULL, buffer, UNITS),
        "\"footerValid\":true,\"headerValid\":true,");
    u16(url, "%s/pmtiles/test-fixture-1-mvt-z0.pmtiles", argv[1]);
    expect(NorvaneCloud_PmTilesProbeJson(client, url, NULL, buffer, UNITS), "\"remote\":true,");
    expect(NorvaneCloud_PmTilesInspectJson(client, u16(url, "%s", argv[3]), NULL, buffer, UNITS), "\"remote\":false,");
    NorvaneCloud_SetHeadersJson(client, u"{\"Authorization\":\"Bearer t\"}");
    expect(NorvaneCloud_StacSearchJson(client, u16(url, "%s", argv[2]), NULL, buffer, UNITS), "{\"items\":[{");
    expect(NorvaneCloud_StacResolveCogLayerJson(client, url, NULL, NULL, 3, buffer, UNITS),
        "\"itemId\":\"mt_m_4911557_sw_11_060_20231117_20240103\"");
    NorvaneCloud_DestroyClient(client);

    sem_wait(&churned);
    sem_wait(&churned);
    failures += succeeded[0] + succeeded[1] != 2 * CLIENTS && printf("churn: %d worked\n", succeeded[0] + succeeded[1]);
    /* Temporary application objects leave the host's locale as it was. */
    failures += strcmp(setlocale(LC_ALL, NULL), "C") != 0 && printf("locale: %s\n", setlocale(LC_ALL, NULL));
    printf("%d failed\n", failures);
    return failures != 0;
}

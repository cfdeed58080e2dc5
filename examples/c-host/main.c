/* A host that uses only the flat C functions: probes a PMTiles archive (local path or URL) and prints the
 * probe document, asking for the needed buffer size first. */
#include <norvanecloud/flat.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The flat functions take UTF-16; this example passes ASCII arguments only. */
static char16_t *to_utf16(const char *text)
{
    size_t length = strlen(text);
    char16_t *result = calloc(length + 1, sizeof(char16_t));
    for (size_t i = 0; result && i < length; ++i)
        result[i] = (unsigned char)text[i];
    return result;
}

static void print_utf16(const char16_t *text)
{
    for (; *text; ++text)
        putchar(*text < 128 ? (int)*text : '?');
    putchar('\n');
}

static void print_last_error(void)
{
    char16_t message[512];
    NorvaneCloud_LastError(message, 512);
    fputs("error: ", stderr);
    for (const char16_t *c = message; *c; ++c)
        fputc(*c < 128 ? (int)*c : '?', stderr);
    fputc('\n', stderr);
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: norvane-c-host LOCATION [CACHE_DIR]\n");
        return 2;
    }
    char options[1024];
    snprintf(options, sizeof options, "{\"directory\": \"%s\"}", argc > 2 ? argv[2] : "/tmp/c-host");
    char16_t *optionsText = to_utf16(options);
    char16_t *location = to_utf16(argv[1]);
    NorvaneCloudClient *client = NorvaneCloud_CreateClient(optionsText);
    int status = 1;
    if (!client) {
        print_last_error();
    } else {
        /* A null buffer asks for the length; the second call fills a buffer of that size. */
        int32_t length = NorvaneCloud_PmTilesInspectJson(client, location, NULL, NULL, 0);
        char16_t *document = length >= 0 ? calloc((size_t)length + 1, sizeof(char16_t)) : NULL;
        if (document && NorvaneCloud_PmTilesInspectJson(client, location, NULL, document, length + 1) == length) {
            print_utf16(document);
            status = 0;
        } else {
            print_last_error();
        }
        free(document);
        NorvaneCloud_DestroyClient(client);
    }
    free(location);
    free(optionsText);
    return status;
}

"""A host that calls the flat functions the way many real hosts do: Python's ctypes, the shared library loaded
by file name, functions found by their plain names, text passed as zero-terminated UTF-16 in 16-bit units.

Usage: flat_python_host.py <shared library> <port> <test data folder> <cache folder>
"""

import ctypes
import json
import os
import sys
import threading
import unittest

LIBRARY_PATH, PORT, DATA_FOLDER, CACHE_FOLDER = sys.argv[1:5]
SERVER = "http://127.0.0.1:%s" % PORT

Unit = ctypes.c_uint16
UnitPointer = ctypes.POINTER(Unit)
Client = ctypes.c_void_p


def utf16(text):
    """Zero-terminated UTF-16 in 16-bit units; None stays a null pointer. (ctypes' own wide strings are UTF-32
    on Linux, so they cannot be used.)"""
    if text is None:
        return None
    encoded = text.encode("utf-16-le")
    units = [int.from_bytes(encoded[index:index + 2], "little") for index in range(0, len(encoded), 2)]
    return (Unit * (len(units) + 1))(*units, 0)


def text_of(buffer, length):
    return bytes(buffer)[: 2 * length].decode("utf-16-le", errors="surrogatepass")


def load():
    library = ctypes.CDLL(LIBRARY_PATH)
    signatures = {
        "NorvaneCloud_CreateClient": (Client, [UnitPointer]),
        "NorvaneCloud_DestroyClient": (None, [Client]),
        "NorvaneCloud_LastError": (ctypes.c_int32, [UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_SetTimeout": (ctypes.c_int32, [Client, ctypes.c_int32]),
        "NorvaneCloud_SetHeadersJson": (ctypes.c_int32, [Client, UnitPointer]),
        "NorvaneCloud_ClearCache": (ctypes.c_int32, [Client]),
        "NorvaneCloud_CacheStatisticsJson": (ctypes.c_int32, [Client, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_CogGdalVirtualPath": (ctypes.c_int32, [Client, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_GeoParquetGdalVirtualPath": (ctypes.c_int32,
                                                   [Client, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_PmTilesGdalVirtualPath": (ctypes.c_int32, [Client, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_CogProbeJson": (ctypes.c_int32,
                                      [Client, UnitPointer, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_GeoParquetProbeJson": (ctypes.c_int32,
                                             [Client, UnitPointer, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_PmTilesInspectJson": (ctypes.c_int32,
                                            [Client, UnitPointer, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_PmTilesProbeJson": (ctypes.c_int32,
                                          [Client, UnitPointer, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_StacSearchJson": (ctypes.c_int32,
                                        [Client, UnitPointer, UnitPointer, UnitPointer, ctypes.c_int32]),
        "NorvaneCloud_StacResolveCogLayerJson": (ctypes.c_int32, [Client, UnitPointer, UnitPointer, UnitPointer,
                                                                  ctypes.c_int32, UnitPointer, ctypes.c_int32]),
    }
    for name, (result, arguments) in signatures.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


flat = load()


def last_error():
    length = flat.NorvaneCloud_LastError(None, 0)
    buffer = (Unit * (length + 1))()
    flat.NorvaneCloud_LastError(buffer, length + 1)
    return text_of(buffer, length)


def call_text(function, *arguments):
    """Size query with a null buffer, then the call with a buffer that fits. Returns the text, or raises with
    the last error."""
    length = function(*arguments, None, 0)
    if length < 0:
        raise RuntimeError(last_error())
    buffer = (Unit * (length + 1))()
    if function(*arguments, buffer, length + 1) != length:
        raise RuntimeError(last_error())
    return text_of(buffer, length)


class FlatHost(unittest.TestCase):
    def setUp(self):
        # Each test has a cache folder of its own, so the disk levels it reads are its own.
        folder = os.path.join(CACHE_FOLDER, self._testMethodName)
        options = json.dumps({"directory": folder, "maximumMemoryBytes": 9007199254740993})
        self.client = flat.NorvaneCloud_CreateClient(utf16(options))
        self.assertTrue(self.client, last_error())

    def tearDown(self):
        flat.NorvaneCloud_DestroyClient(self.client)

    def test_create_client_failure_and_last_error(self):
        self.assertIsNone(flat.NorvaneCloud_CreateClient(utf16("[1, 2]")))
        self.assertEqual(last_error(), "Cloud client options must be a JSON object")
        self.assertEqual(flat.NorvaneCloud_LastError(None, 0), 42)
        self.assertEqual(flat.NorvaneCloud_SetTimeout(self.client, 2500), 1)
        self.assertEqual(flat.NorvaneCloud_LastError(None, 0), 0)
        self.assertEqual(flat.NorvaneCloud_SetTimeout(self.client, -5), 0)
        self.assertEqual(last_error(), "HTTP timeout must be positive")

    def test_statistics_document(self):
        document = call_text(flat.NorvaneCloud_CacheStatisticsJson, self.client)
        self.assertEqual(list(json.loads(document)), sorted(json.loads(document)))
        self.assertEqual(json.loads(document), dict.fromkeys(
            ["cacheBytesServed", "diskBytes", "diskHits", "evictions", "memoryBytes", "memoryHits", "misses",
             "networkBytes", "networkRequests", "writes"], 0))

    def test_gdal_path_with_non_ascii_text_and_truncation(self):
        url = SERVER + "/tiff/\u00e9t\u00e9 \U0001F30D.tif"
        path = call_text(flat.NorvaneCloud_CogGdalVirtualPath, self.client, utf16(url))
        self.assertEqual(path, "/vsicurl/" + SERVER + "/tiff/%C3%A9t%C3%A9%20%F0%9F%8C%8D.tif")

        small = (Unit * 8)(*([0x2222] * 8))
        self.assertEqual(flat.NorvaneCloud_CogGdalVirtualPath(self.client, utf16(url), small, 5), len(path))
        self.assertEqual(text_of(small, 4), "/vsi")
        self.assertEqual(list(small[4:6]), [0, 0x2222])

        self.assertEqual(flat.NorvaneCloud_CogGdalVirtualPath(self.client, None, small, 8), -1)
        self.assertEqual(last_error(), "COG URL must use HTTP or HTTPS")
        self.assertEqual(small[0], ord("/"))

    def test_probes(self):
        cog = json.loads(call_text(flat.NorvaneCloud_CogProbeJson, self.client,
                                   utf16(SERVER + "/tiff/bigtiff-cog-le-ifd-at-16.tiff"), utf16("{}")))
        self.assertEqual((cog["byteOrder"], cog["bigTiff"], cog["firstIfdOffset"], cog["cloudReadable"]),
                         ("II", True, 16, True))
        parquet = json.loads(call_text(flat.NorvaneCloud_GeoParquetProbeJson, self.client,
                                       utf16(SERVER + "/parquet/geoparquet-point-wkb.parquet"), None))
        self.assertTrue(parquet["headerValid"] and parquet["footerValid"])
        local = os.path.join(DATA_FOLDER, "pmtiles", "test-fixture-1-mvt-z0.pmtiles")
        inspected = json.loads(call_text(flat.NorvaneCloud_PmTilesInspectJson, self.client, utf16(local), None))
        self.assertFalse(inspected["remote"])
        probed = json.loads(call_text(flat.NorvaneCloud_PmTilesProbeJson, self.client,
                                      utf16(SERVER + "/pmtiles/test-fixture-1-mvt-z0.pmtiles"), None))
        self.assertTrue(probed["remote"])
        self.assertEqual(probed["tileDataOffset"], inspected["tileDataOffset"])

        statistics = json.loads(call_text(flat.NorvaneCloud_CacheStatisticsJson, self.client))
        self.assertGreater(statistics["networkRequests"], 0)
        self.assertEqual(flat.NorvaneCloud_ClearCache(self.client), 1)
        statistics = json.loads(call_text(flat.NorvaneCloud_CacheStatisticsJson, self.client))
        self.assertEqual((statistics["memoryBytes"], statistics["diskBytes"]), (0, 0))

    def test_headers_are_checked_first(self):
        self.assertEqual(flat.NorvaneCloud_SetHeadersJson(None, utf16("[]")), 0)
        self.assertEqual(last_error(), "Cloud headers must be a JSON object")
        self.assertEqual(flat.NorvaneCloud_SetHeadersJson(self.client, utf16('{"Authorization": "Bearer flat"}')), 1)
        private = json.loads(call_text(flat.NorvaneCloud_CogProbeJson, self.client,
                                       utf16(SERVER + "/private/cog.tif"), None))
        self.assertTrue(private["cloudReadable"])

    def test_stac(self):
        catalog = utf16(SERVER + "/stac")
        page = call_text(flat.NorvaneCloud_StacSearchJson, self.client, catalog, utf16('{"limit": 10.0}'))
        self.assertTrue(page.startswith('{"items":['))
        document = json.loads(page)
        self.assertEqual(list(document), ["items", "matched", "nextBody", "nextMethod", "nextPage", "raw", "returned"])
        self.assertEqual(len(document["items"]), 10)

        layer = json.loads(call_text(flat.NorvaneCloud_StacResolveCogLayerJson, self.client, catalog, None,
                                     utf16("image"), 9))
        self.assertEqual(layer["itemId"], document["items"][9]["id"])
        self.assertEqual(layer["sourceUrl"], SERVER + "/tiff/bigtiff-cog-le-ifd-at-16.tiff")
        self.assertEqual(layer["gdalVirtualPath"], "/vsicurl/" + layer["sourceUrl"])

        for index in (-1, 10):
            self.assertEqual(flat.NorvaneCloud_StacResolveCogLayerJson(self.client, catalog, None, None, index,
                                                                       None, 0), -1)
            self.assertEqual(last_error(), "STAC item index is out of range")

    def test_last_error_is_per_thread(self):
        flat.NorvaneCloud_ClearCache(None)
        seen = []
        thread = threading.Thread(target=lambda: seen.append(flat.NorvaneCloud_LastError(None, 0)))
        thread.start()
        thread.join()
        self.assertEqual(seen, [0])
        self.assertEqual(last_error(), "Cloud client is null")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])

"""A host that calls the flat functions the way many real hosts do: Python's ctypes, the shared library loaded
by file name, functions found by their plain names, text passed as zero-terminated UTF-16 in 16-bit units.

Usage: flat_python_host.py <shared library> <port> <test data folder> <cache folder>
"""

import ctypes
import json
import os
import sys
import unittest

LIBRARY_PATH, PORT, DATA_FOLDER, CACHE_FOLDER = sys.argv[1:5]
SERVER = "http://127.0.0.1:%s" % PORT

Unit = ctypes.c_uint16
Text, Int, Client = ctypes.POINTER(Unit), ctypes.c_int32, ctypes.c_void_p
SIGNATURES = {
    "CreateClient": (Client, [Text]), "DestroyClient": (None, [Client]), "LastError": (Int, [Text, Int]),
    "SetTimeout": (Int, [Client, Int]), "SetHeadersJson": (Int, [Client, Text]), "ClearCache": (Int, [Client]),
    "CacheStatisticsJson": (Int, [Client, Text, Int]),
    "StacResolveCogLayerJson": (Int, [Client, Text, Text, Text, Int, Text, Int]),
}
for name in ("CogGdalVirtualPath", "GeoParquetGdalVirtualPath", "PmTilesGdalVirtualPath"):
    SIGNATURES[name] = (Int, [Client, Text, Text, Int])
for name in ("CogProbeJson", "GeoParquetProbeJson", "PmTilesInspectJson", "PmTilesProbeJson", "StacSearchJson"):
    SIGNATURES[name] = (Int, [Client, Text, Text, Text, Int])

library = ctypes.CDLL(LIBRARY_PATH)
for name, (result, arguments) in SIGNATURES.items():
    function = getattr(library, "NorvaneCloud_" + name)
    function.restype, function.argtypes = result, arguments


def flat(name):
    return getattr(library, "NorvaneCloud_" + name)

def utf16(text):
    """Zero-terminated UTF-16 in 16-bit units (ctypes' own wide strings are UTF-32 on Linux); None stays null."""
    if text is None:
        return None
    encoded = text.encode("utf-16-le")
    return (Unit * (len(encoded) // 2 + 1)).from_buffer_copy(encoded + b"\0\0")


def text_of(buffer, length):
    return bytes(buffer)[: 2 * length].decode("utf-16-le", errors="surrogatepass")


def last_error():
    buffer = (Unit * 256)()
    return text_of(buffer, flat("LastError")(buffer, 256))


def call_text(name, *arguments):
    """Size query with a null buffer, then the call with a buffer that fits; raises with the last error."""
    length = flat(name)(*arguments, None, 0)
    buffer = (Unit * (length + 1))()
    if length < 0 or flat(name)(*arguments, buffer, length + 1) != length:
        raise RuntimeError(last_error())
    return text_of(buffer, length)


class FlatHost(unittest.TestCase):
    def setUp(self):
        options = json.dumps({"directory": os.path.join(CACHE_FOLDER, self._testMethodName)})
        self.client = flat("CreateClient")(utf16(options))
        self.assertTrue(self.client, last_error())

    def tearDown(self):
        flat("DestroyClient")(self.client)

    def test_failures_and_last_error(self):
        self.assertIsNone(flat("CreateClient")(utf16("[1, 2]")))
        self.assertEqual(last_error(), "Cloud client options must be a JSON object")
        self.assertEqual(flat("SetTimeout")(self.client, 2500), 1)
        self.assertEqual(flat("LastError")(None, 0), 0)

    def test_gdal_path_with_surrogate_pairs_and_truncation(self):
        url = utf16(SERVER + "/tiff/\u00e9t\u00e9 \U0001F30D.tif")
        path = call_text("CogGdalVirtualPath", self.client, url)
        self.assertEqual(path, "/vsicurl/" + SERVER + "/tiff/%C3%A9t%C3%A9%20%F0%9F%8C%8D.tif")
        small = (Unit * 8)(*([0x2222] * 8))
        self.assertEqual(flat("CogGdalVirtualPath")(self.client, url, small, 5), len(path))
        self.assertEqual(list(small[:6]), [ord(unit) for unit in "/vsi"] + [0, 0x2222])

    def test_probes_headers_and_cache(self):
        self.assertEqual(flat("SetHeadersJson")(self.client, utf16('{"Authorization": "Bearer flat"}')), 1)
        cog = json.loads(call_text("CogProbeJson", self.client, utf16(SERVER + "/private/cog.tif"), utf16("{}")))
        self.assertEqual((cog["byteOrder"], cog["bigTiff"], cog["firstIfdOffset"]), ("II", True, 16))
        parquet = SERVER + "/parquet/geoparquet-point-wkb.parquet"
        self.assertTrue(json.loads(call_text("GeoParquetProbeJson", self.client, utf16(parquet), None))["footerValid"])
        local = os.path.join(DATA_FOLDER, "pmtiles", "test-fixture-1-mvt-z0.pmtiles")
        inspected = json.loads(call_text("PmTilesInspectJson", self.client, utf16(local), None))
        probed = json.loads(call_text("PmTilesProbeJson", self.client,
                                      utf16(SERVER + "/pmtiles/test-fixture-1-mvt-z0.pmtiles"), None))
        self.assertEqual((inspected["remote"], probed["remote"]), (False, True))
        self.assertEqual(probed["tileDataOffset"], inspected["tileDataOffset"])

        self.assertGreater(json.loads(call_text("CacheStatisticsJson", self.client))["networkRequests"], 0)
        self.assertEqual(flat("ClearCache")(self.client), 1)
        self.assertEqual(json.loads(call_text("CacheStatisticsJson", self.client))["memoryBytes"], 0)

    def test_stac(self):
        catalogue = utf16(SERVER + "/stac")
        page = json.loads(call_text("StacSearchJson", self.client, catalogue, utf16('{"limit": 10.0}')))
        self.assertEqual(len(page["items"]), 10)
        layer = json.loads(call_text("StacResolveCogLayerJson", self.client, catalogue, None, utf16("image"), 9))
        self.assertEqual(layer["itemId"], page["items"][9]["id"])
        self.assertEqual(layer["sourceUrl"], SERVER + "/tiff/bigtiff-cog-le-ifd-at-16.tiff")
        self.assertEqual(flat("StacResolveCogLayerJson")(self.client, catalogue, None, None, 10, None, 0), -1)
        self.assertEqual(last_error(), "STAC item index is out of range")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "-v"])

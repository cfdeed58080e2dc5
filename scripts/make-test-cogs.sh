#!/bin/sh
# Remakes the small Cloud Optimized GeoTIFFs in tests/data/cogs/ from a real GeoTIFF in tests/data/tiff/, and
# beside each one a tile table (<name>.tiles.tsv) listing the byte range of every tile of every image file
# directory. The tests read the committed files and tables only, so neither GDAL nor Python is needed to run them.
#
# Needs Debian's gdal-bin (gdal_translate, gdaladdo, gdalinfo) and python3. Run from anywhere:
#   scripts/make-test-cogs.sh
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
source_tiff="$root/tests/data/tiff/geotiff-tiled-int16-band-tags.tif"
out="$root/tests/data/cogs"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM

# No .aux.xml side files, neither beside the source nor beside the outputs.
export GDAL_PAM_ENABLED=NO

mkdir -p "$out"

# 1. Little-endian classic TIFF COG, 1024 x 1024 grey bytes in 128 x 128 JPEG tiles: 64 tiles at full resolution
#    plus overviews of 16, 4 and 1 tiles. Used for the 64-tile viewport.
gdal_translate -q -of COG -ot Byte -scale -894 13413 1 255 -a_nodata none -outsize 1024 1024 -r cubic \
    -co BLOCKSIZE=128 -co COMPRESS=JPEG -co QUALITY=60 \
    "$source_tiff" "$out/cog-le-jpeg-1024-64tiles.tif"

# 2. Little-endian BigTIFF COG, the source's 256 x 256 int16 band in 128 x 128 deflate tiles with one overview.
gdal_translate -q -of COG -co BIGTIFF=YES -co BLOCKSIZE=128 -co COMPRESS=DEFLATE -co PREDICTOR=YES \
    "$source_tiff" "$out/cog-bigtiff-le-deflate-overview.tif"

# The COG driver writes native byte order only; the GTiff driver can force big-endian and, when copying a source
# that already has overviews, writes all directories ahead of the tile data (the cloud-optimised layout).
cp "$source_tiff" "$work/with-overviews.tif"
gdaladdo -q -clean "$work/with-overviews.tif"
gdaladdo -q -r average "$work/with-overviews.tif" 2 4

# 3. Big-endian classic TIFF, 64 x 64 deflate tiles, overviews copied ahead of the data.
gdal_translate -q -of GTiff -co ENDIANNESS=BIG -co TILED=YES -co BLOCKXSIZE=64 -co BLOCKYSIZE=64 \
    -co COMPRESS=DEFLATE -co COPY_SRC_OVERVIEWS=YES \
    "$work/with-overviews.tif" "$out/cog-be-deflate-overviews.tif"

# 4. Big-endian BigTIFF, same layout.
gdal_translate -q -of GTiff -co ENDIANNESS=BIG -co BIGTIFF=YES -co TILED=YES -co BLOCKXSIZE=64 -co BLOCKYSIZE=64 \
    -co COMPRESS=DEFLATE -co COPY_SRC_OVERVIEWS=YES \
    "$work/with-overviews.tif" "$out/cog-bigtiff-be-deflate-overviews.tif"

# Tile tables: walk the directories of each file and write one line per tile. The walker reads only the
# tags it needs (image size, tile size, TileOffsets, TileByteCounts) and checks the tile count against the sizes.
for cog in "$out"/*.tif; do
    python3 - "$cog" > "${cog%.tif}.tiles.tsv" <<'PYTHON'
import struct
import sys

path = sys.argv[1]
data = open(path, "rb").read()
order = {b"II": "<", b"MM": ">"}[data[:2]]
version = struct.unpack(order + "H", data[2:4])[0]
big = version == 43
type_sizes = {1: 1, 3: 2, 4: 4, 16: 8}
type_codes = {1: "B", 3: "H", 4: "I", 16: "Q"}


def values(field_type, count, value_bytes):
    size = type_sizes[field_type] * count
    inline = 8 if big else 4
    if size <= inline:
        raw = value_bytes[:size]
    else:
        where = struct.unpack(order + ("Q" if big else "I"), value_bytes)[0]
        raw = data[where:where + size]
    return list(struct.unpack(order + type_codes[field_type] * count, raw))


ifd = struct.unpack(order + "Q", data[8:16])[0] if big else struct.unpack(order + "I", data[4:8])[0]
print("# ifd\twidth\theight\ttileWidth\ttileHeight\ttile\toffset\tlength")
index = 0
while ifd:
    if big:
        count = struct.unpack(order + "Q", data[ifd:ifd + 8])[0]
        entry_at, entry_size = ifd + 8, 20
    else:
        count = struct.unpack(order + "H", data[ifd:ifd + 2])[0]
        entry_at, entry_size = ifd + 2, 12
    tags = {}
    for i in range(count):
        entry = data[entry_at + i * entry_size:entry_at + (i + 1) * entry_size]
        if big:
            tag, field_type, n = struct.unpack(order + "HHQ", entry[:12])
            value_bytes = entry[12:20]
        else:
            tag, field_type, n = struct.unpack(order + "HHI", entry[:8])
            value_bytes = entry[8:12]
        if tag in (256, 257, 322, 323, 324, 325):
            tags[tag] = values(field_type, n, value_bytes)
    next_at = entry_at + count * entry_size
    ifd = struct.unpack(order + ("Q" if big else "I"), data[next_at:next_at + (8 if big else 4)])[0]
    width, height, tile_width, tile_height = tags[256][0], tags[257][0], tags[322][0], tags[323][0]
    offsets, lengths = tags[324], tags[325]
    across = (width + tile_width - 1) // tile_width
    down = (height + tile_height - 1) // tile_height
    assert len(offsets) == len(lengths) == across * down, path
    for tile, (offset, length) in enumerate(zip(offsets, lengths)):
        assert offset + length <= len(data), path
        print(f"{index}\t{width}\t{height}\t{tile_width}\t{tile_height}\t{tile}\t{offset}\t{length}")
    index += 1
PYTHON
done

# Facts for tests/data/SOURCES.md, read back with GDAL and the first 16 bytes.
for cog in "$out"/*.tif; do
    echo "== ${cog#"$root"/tests/data/}: $(stat -c %s "$cog") bytes"
    od -A d -t x1 -N 16 "$cog" | head -n 1
    gdalinfo "$cog" | grep -E '^(Size is|Band|  Overviews)' || true
    echo "tiles: $(grep -vc '^#' "${cog%.tif}.tiles.tsv")"
done

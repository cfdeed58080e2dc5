#!/bin/sh
# Records what GDAL reports about the image file directories of the TIFFs in tests/data/cogs/ and tests/data/tiff/
# into tests/data/cog-structure.gdal.tsv, the expected values of the structure tests. One line per image: the full
# resolution image first, then the overviews in GDAL's order.
#
# From `gdalinfo -json`: sizes, band count, data type (bits and sample format), colour interpretation (photometric),
# compression, predictor, interleaving (planar configuration) and the overviews. From GDAL's Python bindings: the
# directory offset of each image (IFD_OFFSET) and every block offset and byte count (BLOCK_OFFSET_x_y and
# BLOCK_SIZE_x_y of the "TIFF" metadata domain) in the file's order: blocks row by row, and for band-interleaved
# images band after band. From the file's first bytes: byte order and classic or BigTIFF. libtiff, under GDAL,
# presents one large uncompressed strip as several blocks, so for a stripped image the script reads RowsPerStrip
# from the file and joins GDAL's blocks back into the strips the file stores, checking that each stored strip is a
# contiguous run of them. The tests read only the committed table; neither GDAL nor Python is needed to run them.
#
# Needs Debian's gdal-bin and python3-gdal. Run from anywhere:
#   scripts/record-cog-structure.sh
set -eu

root=$(cd "$(dirname "$0")/.." && pwd)
out="$root/tests/data/cog-structure.gdal.tsv"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT INT TERM
# No .aux.xml side files, which would add external overviews or masks to what GDAL reports.
export GDAL_PAM_ENABLED=NO

# The GDAL bindings live in the system's Python, which a Python version manager may hide behind its own.
python=
for candidate in python3 /usr/bin/python3; do
    if "$candidate" -c 'import osgeo.gdal' 2>/dev/null; then python=$candidate && break; fi
done
[ -n "$python" ] || { echo "python3-gdal is needed" >&2; exit 1; }

{
    echo "# Made by scripts/record-cog-structure.sh with $(gdalinfo --version)"
    printf '# file\timage\theader\tifdOffset\twidth\theight\tbands\tbits\tsampleFormat\tcompression\tpredictor'
    printf '\tphotometric\tplanar\tblockWidth\tblockHeight\toffsets\tbyteCounts\n'
    cd "$root/tests/data"
    for file in cogs/*.tif tiff/*; do
        gdalinfo -json "$file" >"$work/info.json"
        "$python" - "$file" "$work/info.json" <<'PYTHON'
import json
import struct
import sys

from osgeo import gdal

COMPRESSION = {None: 1, "LZW": 5, "JPEG": 7, "DEFLATE": 8, "PACKBITS": 32773, "ZSTD": 50000, "WEBP": 50001}
PHOTOMETRIC = {"Gray": 1, "Red": 2, "Palette": 3}


def file_header(path):
    """Byte order, classic or BigTIFF, and RowsPerStrip of the first directory (None when it is tiled)."""
    data = open(path, "rb").read()
    order = "<" if data[:2] == b"II" else ">"
    big = struct.unpack_from(order + "H", data, 2)[0] == 43
    ifd = struct.unpack_from(order + ("Q" if big else "I"), data, 8 if big else 4)[0]
    tags = {}
    for index in range(struct.unpack_from(order + ("Q" if big else "H"), data, ifd)[0]):
        entry = ifd + (8 + index * 20 if big else 2 + index * 12)
        tag, kind = struct.unpack_from(order + "HH", data, entry)
        tags[tag] = struct.unpack_from(order + {3: "H", 4: "I"}.get(kind, "Q"), data, entry + (12 if big else 8))[0]
    header = data[:2].decode() + (" BigTIFF" if big else " classic")
    return header, None if 322 in tags else tags.get(278, 2**32 - 1)


def join_into_strips(offsets, counts, block_height, height, rows):
    """Joins the blocks of each plane (one per block row) into the stored strips of the given rows."""
    joined_offsets, joined_counts = [], []
    blocks_down = (height + block_height - 1) // block_height
    for plane in range(len(offsets) // blocks_down):
        for y in range(blocks_down):
            index = plane * blocks_down + y
            first_row, last_row = y * block_height, min((y + 1) * block_height, height) - 1
            assert first_row // rows == last_row // rows, "a GDAL block spans two stored strips"
            if first_row % rows == 0:
                joined_offsets.append(offsets[index])
                joined_counts.append(counts[index])
            else:
                assert offsets[index] == joined_offsets[-1] + joined_counts[-1], "stored strip not contiguous"
                joined_counts[-1] += counts[index]
    return joined_offsets, joined_counts


gdal.UseExceptions()
path, info = sys.argv[1], json.load(open(sys.argv[2]))
dataset = gdal.Open(path)
bands = [dataset.GetRasterBand(index + 1) for index in range(dataset.RasterCount)]
if any(band.GetMaskFlags() == gdal.GMF_PER_DATASET for band in bands):
    sys.exit(f"{path}: internal masks are not recorded")
structure = info["metadata"].get("IMAGE_STRUCTURE", {})
first = info["bands"][0]
data_type = first["type"]
pixel_type = first.get("metadata", {}).get("IMAGE_STRUCTURE", {}).get("PIXELTYPE")
band_interleaved = structure.get("INTERLEAVE") == "BAND" and len(bands) > 1
header, rows_per_strip = file_header(path)
tags = [
    gdal.GetDataTypeSize(gdal.GetDataTypeByName(data_type)),
    3 if data_type.startswith("Float") else 2 if data_type.startswith("Int") or pixel_type == "SIGNEDBYTE" else 1,
    COMPRESSION[structure.get("COMPRESSION")],
    int(structure.get("PREDICTOR", 1)),
    6 if structure.get("SOURCE_COLOR_SPACE") == "YCbCr" else PHOTOMETRIC[first["colorInterpretation"]],
    2 if band_interleaved else 1,
]
sizes = [info["size"]] + [overview["size"] for overview in first.get("overviews", [])]
for image, (width, height) in enumerate(sizes):
    levels = [band if image == 0 else band.GetOverview(image - 1) for band in bands]
    block_width, block_height = first["block"] if image == 0 else levels[0].GetBlockSize()
    offsets, counts = [], []
    for level in levels if band_interleaved else levels[:1]:
        for y in range((height + block_height - 1) // block_height):
            for x in range((width + block_width - 1) // block_width):
                offsets.append(int(level.GetMetadataItem(f"BLOCK_OFFSET_{x}_{y}", "TIFF") or 0))
                counts.append(int(level.GetMetadataItem(f"BLOCK_SIZE_{x}_{y}", "TIFF") or 0))
    if image == 0 and rows_per_strip is not None and min(rows_per_strip, height) != block_height:
        offsets, counts = join_into_strips(offsets, counts, block_height, height, min(rows_per_strip, height))
        block_height = min(rows_per_strip, height)
    ifd_offset = levels[0].GetMetadataItem("IFD_OFFSET", "TIFF")
    print("\t".join(map(str, [path, image, header, ifd_offset, width, height, len(bands)] + tags
                        + [block_width, block_height, ",".join(map(str, offsets)), ",".join(map(str, counts))])))
PYTHON
    done
} >"$out.new"
mv "$out.new" "$out"
echo "wrote $out: $(grep -vc '^#' "$out") images"

"""Checks that the shared library's dynamic symbol table exports the sixteen flat functions under their plain,
undecorated names, and no other name with their prefix.

Usage: check_exports.py <nm> <shared library>"""

import subprocess
import sys

EXPECTED = {
    "NorvaneCloud_CacheStatisticsJson", "NorvaneCloud_ClearCache", "NorvaneCloud_CogGdalVirtualPath",
    "NorvaneCloud_CogProbeJson", "NorvaneCloud_CreateClient", "NorvaneCloud_DestroyClient",
    "NorvaneCloud_GeoParquetGdalVirtualPath", "NorvaneCloud_GeoParquetProbeJson", "NorvaneCloud_LastError",
    "NorvaneCloud_PmTilesGdalVirtualPath", "NorvaneCloud_PmTilesInspectJson", "NorvaneCloud_PmTilesProbeJson",
    "NorvaneCloud_SetHeadersJson", "NorvaneCloud_SetTimeout", "NorvaneCloud_StacResolveCogLayerJson",
    "NorvaneCloud_StacSearchJson",
}


def main():
    nm, library = sys.argv[1:3]
    listing = subprocess.run([nm, "-D", "--defined-only", library], check=True, capture_output=True,
                             text=True).stdout
    functions = {}
    for line in listing.splitlines():
        fields = line.split()
        if len(fields) == 3 and "NorvaneCloud_" in fields[2]:
            functions[fields[2]] = fields[1]
    problems = []
    for name in sorted(EXPECTED - functions.keys()):
        problems.append("not exported: " + name)
    for name in sorted(functions.keys() - EXPECTED):
        problems.append("unexpected export: " + name)
    for name in sorted(EXPECTED & functions.keys()):
        if functions[name] != "T":
            problems.append("%s is exported as '%s', not as a code symbol" % (name, functions[name]))
    for problem in problems:
        print(problem, file=sys.stderr)
    print("%d of %d flat functions exported undecorated" % (len(EXPECTED & functions.keys()), len(EXPECTED)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

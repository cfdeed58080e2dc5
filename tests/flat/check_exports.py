"""Checks that the shared library's dynamic symbol table exports the sixteen flat functions as code under their
plain, undecorated names, and no other name with their prefix.

Usage: check_exports.py <nm> <shared library>"""

import subprocess
import sys

EXPECTED = {"NorvaneCloud_" + name for name in (
    "CacheStatisticsJson", "ClearCache", "CogGdalVirtualPath", "CogProbeJson", "CreateClient", "DestroyClient",
    "GeoParquetGdalVirtualPath", "GeoParquetProbeJson", "LastError", "PmTilesGdalVirtualPath", "PmTilesInspectJson",
    "PmTilesProbeJson", "SetHeadersJson", "SetTimeout", "StacResolveCogLayerJson", "StacSearchJson")}


def main():
    nm, library = sys.argv[1:3]
    listing = subprocess.run([nm, "-D", "--defined-only", library], check=True, capture_output=True, text=True)
    exported = {fields[2]: fields[1] for fields in map(str.split, listing.stdout.splitlines())
                if len(fields) == 3 and "NorvaneCloud_" in fields[2]}
    problems = ["not exported: " + name for name in sorted(EXPECTED - exported.keys())]
    problems += ["unexpected export: " + name for name in sorted(exported.keys() - EXPECTED)]
    problems += ["%s is exported as '%s', not as code" % (name, exported[name])
                 for name in sorted(EXPECTED & exported.keys()) if exported[name] != "T"]
    for problem in problems:
        print(problem, file=sys.stderr)
    print("%d of %d flat functions exported undecorated" % (len(EXPECTED & exported.keys()), len(EXPECTED)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())

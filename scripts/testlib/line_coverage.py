"""usage: line_coverage.py FILTER < JSON

Prints the line coverage of each source whose path contains FILTER, from the output of `llvm-cov export`."""
import json
import os
import sys

for file in json.load(sys.stdin)["data"][0]["files"]:
    lines = file["summary"]["lines"]
    if sys.argv[1] in file["filename"] and lines["count"]:
        path = os.path.relpath(file["filename"])
        print(f"    {lines['percent']:5.1f} %  {lines['covered']:4} of {lines['count']:4}  {path}")

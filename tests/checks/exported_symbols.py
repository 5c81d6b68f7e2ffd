#!/usr/bin/env python3
"""Compares what a shared library exports with a checked-in list, and looks at its SONAME.

Usage: exported_symbols.py LIBRARY LIST [--update]
"""

import pathlib
import subprocess
import sys


def exported(library: str) -> list[str]:
    output = subprocess.run(["nm", "-D", "-C", "--defined-only", library], check=True, capture_output=True, text=True)
    # Constructors and destructors appear once per variant under the same name.
    symbols = {" ".join(line.split()[1:]) for line in output.stdout.splitlines()}
    return sorted(symbol.split("@")[0] for symbol in symbols if not symbol.startswith("A "))


def main() -> int:
    library, list_file = sys.argv[1], pathlib.Path(sys.argv[2])
    actual = exported(library)
    if "--update" in sys.argv:
        list_file.write_text("\n".join(actual) + "\n")
        return 0
    expected = list_file.read_text().splitlines()
    for symbol in sorted(set(actual) - set(expected)):
        print(f"exported but not in {list_file.name}: {symbol}")
    for symbol in sorted(set(expected) - set(actual)):
        print(f"in {list_file.name} but not exported: {symbol}")
    print(f"{len(actual)} symbols")
    dynamic = subprocess.run(["readelf", "-d", library], check=True, capture_output=True, text=True).stdout
    name = f"{pathlib.Path(library).name}.1"
    if f"[{name}]" not in dynamic:
        print(f"the SONAME is not {name}")
        return 1
    return 0 if actual == expected and actual else 1


if __name__ == "__main__":
    sys.exit(main())

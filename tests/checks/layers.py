#!/usr/bin/env python3
"""Holds the layers: every folder includes only what it may look down to.

Usage: layers.py ROOT
"""

import pathlib
import re
import sys

# Folder -> folders whose headers it may include beside its own. "include" and "platform/include" are named without
# a folder in include lines; the others with it.
MAY_INCLUDE = {
    "include": {"platform/include"},
    "platform/include": set(),
    "platform/linux": {"platform/include", "support"},
    "support": {"include", "platform/include"},
    "settings": {"include", "platform/include", "support"},
    "podman": {"include", "platform/include", "support"},
    "compose": {"include", "platform/include", "support"},
    "crp": {"include", "platform/include", "support"},
    "service": {"include", "platform/include", "support"},
    "tools": {"include", "platform/include", "support", "crp"},
    "host/http": {"include", "platform/include", "support"},
    "host/logs": {"include", "platform/include", "support"},
    "host/ctl": {"include", "platform/include", "support"},
    "host/daemon": {"include", "platform/include", "support", "host/http"},
    "host/api": {"include", "platform/include", "support", "host/http", "host/logs", "host/daemon"},
    "host": {"include", "platform/include", "support", "host/http", "host/logs", "host/daemon", "host/api"},
}
INCLUDE = re.compile(r'^\s*#\s*include\s+"([^"]+)"')


def folder_containing(path: pathlib.Path, root: pathlib.Path) -> str | None:
    """The innermost folder of the table that holds a file."""
    relative = path.resolve().relative_to(root)
    holders = [f for f in MAY_INCLUDE if relative.is_relative_to(f)]
    return max(holders, key=len, default=None)


def folder_of(name: str, source: pathlib.Path, root: pathlib.Path) -> str | None:
    """Finds the folder of an included header; None when it is not one of the project."""
    for base in (source.parent, root, root / "include", root / "platform/include", root / "host", root / "host/logs"):
        header = base / name
        if header.is_file():
            return folder_containing(header, root) or str(header.resolve().relative_to(root).parent)
    return None


def main() -> int:
    root = pathlib.Path(sys.argv[1]).resolve()
    problems = []
    seen = 0
    for folder, allowed in MAY_INCLUDE.items():
        for source in sorted((root / folder).rglob("*")):
            if source.suffix not in (".h", ".cpp") or folder_containing(source, root) != folder:
                continue
            for number, line in enumerate(source.read_text().splitlines(), 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                seen += 1
                target = folder_of(match[1], source, root)
                where = f"{source.relative_to(root)}:{number}"
                if target is None:
                    problems.append(f"{where}: \"{match[1]}\" is not found in the project")
                elif target != folder and target not in allowed:
                    problems.append(f"{where}: {folder} must not look at {target} ({match[1]})")
    print(f"{seen} include lines looked at, {len(problems)} problems")
    print("\n".join(problems))
    return 1 if problems or seen == 0 else 0


if __name__ == "__main__":
    sys.exit(main())

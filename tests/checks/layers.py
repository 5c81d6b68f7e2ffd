#!/usr/bin/env python3
"""Holds the layers: every folder includes only what it may look down to, of public headers, too.

Usage: layers.py ROOT
"""

import pathlib
import re
import sys

# A public header belongs to the layer that implements it, or is there for every layer.
PUBLIC = {
    "include/QxCRTELog.h": "include",
    "include/QxExport.h": "include",
    "include/QxNContainerPaths.h": "include",
    "include/QxCCTESettings.h": "include:settings",
    "include/QxCCurlHandler.h": "include:podman",
    "include/QxCWriteThroughCacheGuard.h": "include:podman",
    "include/QxCComposeFileHandler.h": "include:compose",
    "include/CrpPluginHeader.h": "include:crp",
    "include/QxCRPHandler.h": "include:crp",
    "include/QxCRPLoader.h": "include:crp",
    "include/QxCRPScanner.h": "include:crp",
    "include/QxCContainer.h": "include:service",
}
HEADERS = {"include", "platform/include"}
ALL_HEADERS = HEADERS | set(PUBLIC.values())

# Layer -> layers whose headers it may include beside its own. A layer is a folder, or the public headers of one.
MAY_INCLUDE = {
    "platform/include": set(),
    "include": {"platform/include"},
    "include:settings": HEADERS,
    "include:podman": HEADERS,
    "include:compose": HEADERS,
    "include:crp": HEADERS,
    "include:service": HEADERS | {"include:settings", "include:podman", "include:compose", "include:crp"},
    "platform/linux": {"platform/include", "support"},
    "support": HEADERS,
    "settings": HEADERS | {"include:settings", "support"},
    # Its requests and streams are members of the service's class.
    "podman": HEADERS | {"include:podman", "include:service", "support"},
    "compose": HEADERS | {"include:compose", "support"},
    "crp": HEADERS | {"include:crp", "support"},
    "service": ALL_HEADERS | {"support"},
    "tools": ALL_HEADERS | {"support", "crp"},
    "host/http": {"platform/include", "support"},
    "host/logs": ALL_HEADERS | {"support"},
    "host/ctl": {"platform/include"},
    "host/daemon": ALL_HEADERS | {"support", "host/http"},
    "host/api": ALL_HEADERS | {"support", "host/http", "host/logs", "host/daemon"},
    "host": ALL_HEADERS | {"support", "host/http", "host/logs", "host/daemon", "host/api"},
}
# Where names in include lines are looked for, after the folder of the file.
BASES = ("", "include", "platform/include", "host", "host/logs")
INCLUDE = re.compile(r'^\s*#\s*include\s*(["<])([^">]+)[">]')


def layer_of(path: pathlib.Path, root: pathlib.Path) -> str | None:
    """The layer of a file: by the table of public headers, else the innermost folder that is one."""
    relative = path.resolve().relative_to(root)
    holders = [layer for layer in MAY_INCLUDE if relative.is_relative_to(layer)]
    return PUBLIC.get(str(relative), max(holders, key=len, default=None))


def header_of(name: str, source: pathlib.Path, root: pathlib.Path) -> pathlib.Path | None:
    """Finds an included header; None when it is not one of the project."""
    bases = [source.parent, *(root / base for base in BASES)]
    return next((base / name for base in bases if (base / name).is_file()), None)


def main() -> int:
    root = pathlib.Path(sys.argv[1]).resolve()
    problems = []
    seen = 0
    headers = {str(header.relative_to(root)) for header in (root / "include").glob("*")}
    problems += (f"{header} is not there" for header in sorted(set(PUBLIC) - headers))
    problems += (f"{header} belongs to no layer" for header in sorted(headers - set(PUBLIC)))
    folders = {layer.split("/")[0] for layer in MAY_INCLUDE if ":" not in layer}
    for source in sorted(file for folder in folders for file in (root / folder).rglob("*")):
        layer = layer_of(source, root) if source.suffix in (".h", ".cpp") else None
        if layer is None:
            continue
        for number, line in enumerate(source.read_text().splitlines(), 1):
            match = INCLUDE.match(line)
            if not match:
                continue
            seen += 1
            where = f"{source.relative_to(root)}:{number}"
            header = header_of(match[2], source, root)
            if header is None:
                if match[1] == '"':
                    problems.append(f'{where}: "{match[2]}" is not found in the project')
                continue
            target = layer_of(header, root) or str(header.resolve().relative_to(root).parent)
            if target != layer and target not in MAY_INCLUDE[layer]:
                problems.append(f"{where}: {layer} must not look at {target} ({match[2]})")
    print(f"{seen} include lines looked at, {len(problems)} problems")
    print("\n".join(problems))
    return 1 if problems or seen == 0 else 0


if __name__ == "__main__":
    sys.exit(main())

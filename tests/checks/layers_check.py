#!/usr/bin/env python3
"""Holds layers.py to it that an include line which looks up or aside is found, whatever its form, and a public header
of which no layer is known.

Usage: layers_check.py ROOT
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile

CHECK = pathlib.Path(__file__).with_name("layers.py")

# A file, its only line, and what is said of it; nothing when it may stand.
CASES = [
    ("settings/A.cpp", '#include "QxCCTESettings.h"', None),
    ("settings/A.cpp", '#include "support/Log.h"', None),
    ("settings/A.cpp", "#include <string>", None),
    ("settings/A.cpp", "#include <QxCRTELog.h>", None),
    ("settings/A.cpp", '#include "QxCContainer.h"', "settings must not look at include:service (QxCContainer.h)"),
    ("settings/A.cpp", "  # include <QxCContainer.h>", "settings must not look at include:service (QxCContainer.h)"),
    ("settings/A.h", '#include "../include/QxCContainer.h"', "settings must not look at include:service"),
    ("settings/A.cpp", '#include "IsNot.h"', '"IsNot.h" is not found in the project'),
    ("settings/A.cpp", '#include "tests/Any.h"', "settings must not look at tests (tests/Any.h)"),
    ("crp/A.cpp", '#include "QxCCTESettings.h"', "crp must not look at include:settings (QxCCTESettings.h)"),
    ("compose/A.cpp", '#include "QxCCurlHandler.h"', "compose must not look at include:podman (QxCCurlHandler.h)"),
    ("compose/A.cpp", '#include "crp/Any.h"', "compose must not look at crp (crp/Any.h)"),
    ("podman/A.cpp", '#include "QxCContainer.h"', None),
    ("podman/A.cpp", '#include "QxCRPLoader.h"', "podman must not look at include:crp (QxCRPLoader.h)"),
    ("support/A.cpp", '#include "QxCContainer.h"', "support must not look at include:service (QxCContainer.h)"),
    ("include/QxCRPScanner.h", '#include "QxCCTESettings.h"', "include:crp must not look at include:settings"),
    ("include/QxCRTELog.h", '#include "QxCRPLoader.h"', "include must not look at include:crp (QxCRPLoader.h)"),
    ("include/QxCContainer.h", '#include "QxCCTESettings.h"', None),
    ("service/A.cpp", '#include "QxCRPHandler.h"', None),
    ("service/A.cpp", '#include "crp/Any.h"', "service must not look at crp (crp/Any.h)"),
    ("service/A.cpp", '#include "http/Any.h"', "service must not look at host/http (http/Any.h)"),
    ("platform/linux/A.cpp", '#include "QxCRTELog.h"', "platform/linux must not look at include (QxCRTELog.h)"),
    ("host/http/A.cpp", '#include "QxCContainer.h"', "host/http must not look at include:service (QxCContainer.h)"),
    ("host/http/A.cpp", '#include "daemon/Any.h"', "host/http must not look at host/daemon (daemon/Any.h)"),
    ("host/api/A.cpp", '#include "daemon/Any.h"', None),
]
OTHERS = ["support/Log.h", "tests/Any.h", "crp/Any.h", "host/http/Any.h", "host/daemon/Any.h"]


def main() -> int:
    sources = pathlib.Path(sys.argv[1])
    wrong = []
    with tempfile.TemporaryDirectory() as made:
        root = pathlib.Path(made)
        headers = [header.relative_to(sources) for header in (sources / "include").glob("*.h")]
        for file, line, problem in CASES:
            for header in [*headers, *OTHERS]:
                (root / header).parent.mkdir(parents=True, exist_ok=True)
                (root / header).write_text("#include <vector>\n")
            (root / file).parent.mkdir(parents=True, exist_ok=True)
            (root / file).write_text(line + "\n")
            run = subprocess.run([sys.executable, CHECK, root], capture_output=True, text=True)
            said = f"{file}:1: {problem}" if problem else "0 problems"
            if run.returncode != (1 if problem else 0) or said not in run.stdout:
                wrong.append(f"{file} with {line}: expected '{said}', got {run.returncode}: {run.stdout}{run.stderr}")
            shutil.rmtree(root / pathlib.Path(file).parts[0])
        (root / "include/QxNew.h").write_text("")
        (root / "include/QxExport.h").unlink()
        run = subprocess.run([sys.executable, CHECK, root], capture_output=True, text=True)
        for said in ("include/QxNew.h belongs to no layer", "include/QxExport.h is not there"):
            if run.returncode != 1 or said not in run.stdout:
                wrong.append(f"expected '{said}', got {run.returncode}: {run.stdout}{run.stderr}")
    print("\n".join(wrong))
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())

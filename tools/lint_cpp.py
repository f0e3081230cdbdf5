"""Run clang-tidy over the translation units that changed since they last passed.

A unit is checked again when its text, that of a project header it includes, its compile command,
the checks or clang-tidy itself changed. Usage: lint_cpp.py BUILD_FOLDER
"""

import hashlib
import json
import os
import re
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor
from functools import cache
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
CLANG_TIDY = Path(sys.executable).with_name("clang-tidy")
INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"', re.MULTILINE)


@cache
def included(source: Path) -> frozenset[Path]:
    """The project's own files that `source` includes directly."""
    names = INCLUDE.findall(source.read_text(encoding="utf-8"))
    candidates = [folder / name for name in names for folder in (ROOT, source.parent)]
    return frozenset(path.resolve() for path in candidates if path.is_file())


def closure(source: Path) -> list[Path]:
    """`source` and everything of the project that it includes, at any depth."""
    seen: set[Path] = set()
    pending = [source]
    while pending:
        path = pending.pop()
        if path not in seen:
            seen.add(path)
            pending.extend(included(path))
    return sorted(seen)


def fingerprint(unit: dict[str, str], version: bytes) -> str:
    digest = hashlib.sha256(version + unit["command"].encode())
    for path in [ROOT / ".clang-tidy", *closure(Path(unit["file"]))]:
        digest.update(path.read_bytes() + b"\0")
    return digest.hexdigest()


def check(build: Path, source: str) -> subprocess.CompletedProcess[str]:
    command = [CLANG_TIDY, "--quiet", f"-p={build}", source]
    return subprocess.run(command, cwd=ROOT, capture_output=True, text=True, check=False)


def main(build: Path) -> int:
    version = subprocess.run([CLANG_TIDY, "--version"], capture_output=True, check=True).stdout
    units = json.loads((build / "compile_commands.json").read_text(encoding="utf-8"))
    passed_file = build / "clang-tidy-passed.json"
    passed = json.loads(passed_file.read_text()) if passed_file.exists() else {}
    current = {unit["file"]: fingerprint(unit, version) for unit in units}
    changed = [source for source, print_ in current.items() if passed.get(source) != print_]

    failed = []
    with ThreadPoolExecutor(os.process_cpu_count()) as pool:
        for source, run in zip(changed, pool.map(lambda s: check(build, s), changed), strict=True):
            if run.returncode != 0:
                failed.append(source)
                print(run.stdout + run.stderr)
    for source in failed:
        del current[source]
    passed_file.write_text(json.dumps(current, indent=1))
    print(f"clang-tidy: {len(units)} units, {len(changed)} checked, {len(failed)} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]).resolve()))

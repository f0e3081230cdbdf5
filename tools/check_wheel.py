"""Check that a wheel brings the extension and its stubs, and nothing else.

`quillstone` is shared with other distributions, so one file too many would overwrite theirs.
Usage: check_wheel.py WHEEL
"""

import sys
import sysconfig
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
EXTENSION = "quillstone/simulate_signal" + sysconfig.get_config_var("EXT_SUFFIX")
STUBS = {"quillstone/simulate_signal.pyi", "quillstone-stubs/simulate_signal.pyi"}


def problems(wheel: Path) -> list[str]:
    with zipfile.ZipFile(wheel) as archive:
        names = {name for name in archive.namelist() if ".dist-info/" not in name}
        expected = {EXTENSION, *STUBS}
        found = [f"unexpected file {name}" for name in sorted(names - expected)]
        found += [f"missing file {name}" for name in sorted(expected - names)]
        if EXTENSION in names and str(ROOT).encode() in archive.read(EXTENSION):
            found.append(f"{EXTENSION} contains the path of the folder it was built in")
    return found


if __name__ == "__main__":
    found = problems(Path(sys.argv[1]))
    print("\n".join(found) if found else f"{Path(sys.argv[1]).name}: contents as expected")
    sys.exit(1 if found else 0)

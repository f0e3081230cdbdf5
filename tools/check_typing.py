"""Check that type checkers find the stub of an installed wheel, and that the stub tells the truth.

Run by the interpreter of an environment that holds the wheel and mypy; the kit stays outside of it.
Usage: check_typing.py KIT EXAMPLES
"""

import ast
import functools
import importlib.util
import inspect
import os
import re
import subprocess
import sys
import sysconfig
import tempfile
import types
import venv
from collections.abc import Iterator
from pathlib import Path

MODULE = "quillstone.simulate_signal"
PURELIB = Path(sysconfig.get_path("purelib"))
STUB = PURELIB / "quillstone-stubs" / "simulate_signal.pyi"

# The kit and what only its numerics and the examples' pictures need are not what is checked.
CONFIG = """\
[mypy]
strict = True
[mypy-quillstone.*]
follow_imports = silent
[mypy-rich.*,matplotlib.*]
ignore_missing_imports = True
"""

# A line is reported with the code behind its `#!`, and no other line is reported.
CALLS = """\
from quillstone.simulate_signal import (
    SimulationHandle, SimulationResult, effective_simulation_options, init_simulate_signal,
    simulate_signal, simulate_strategy,
)
handle: SimulationHandle = simulate_signal({"type": "feature"}, signal_pool_id="alpha")
result: SimulationResult = handle.result()
progress: float = handle.status().progress
for option in effective_simulation_options({"engine_definitions": {}})["universe_options"]:
    print(option["rule_id"] + 1, option.get("market_id"), option["rule"])  #! typeddict-item
score: float = result.mi_score  #! assignment
simulate_signal(5, signal_pool_id="alpha")  #! arg-type
simulate_signal({}, signal_pool_id=5)  #! arg-type
simulate_signal({})  #! call-arg
simulate_strategy({}, signal_pool_id="alpha")  #! call-arg
simulate_strategy({}, strategy_pool_id="blend", record="yes")  #! arg-type
handle.status().era  #! attr-defined
handle.cancel().phase  #! attr-defined, func-returns-value
effective_simulation_options(None)  #! arg-type
init_simulate_signal(1, 2, 3, 4, 5, 6)  #! arg-type
"""

# The kit's own collaborators are what the protocols describe.
WIRING = """\
from pathlib import Path
from quillstone.auth import LocalAuth
from quillstone.era import LocalEraThread
from quillstone.search_tracking import SearchTracker
from quillstone.simulate_signal import init_simulate_signal
from quillstone.simulator_engine.backtester import CachingBacktester, LocalBacktester
from quillstone.simulator_engine.batch_orchestrator import BatchOrchestrator, compute_search_plan
from quillstone.simulator_engine.found_signals import FoundSignalStore
from quillstone.simulator_engine.graph_validator import GraphValidator
from quillstone.sync import LocalSyncManager
from quillstone.vault import LocalVault

def wire(
    sync: LocalSyncManager, found: FoundSignalStore, tracker: SearchTracker,
    validator: GraphValidator, plain: LocalBacktester, caching: CachingBacktester,
) -> None:
    auth, vault, era = LocalAuth(Path()), LocalVault(Path()), LocalEraThread(sync)
    init_simulate_signal(auth, sync, vault, caching, tracker, era, validator)
    init_simulate_signal(
        auth, sync, vault, plain, tracker, era,
        batch_orchestrator=BatchOrchestrator(),
        BatchOrchestrator_cls=BatchOrchestrator,
        compute_search_plan=compute_search_plan,
        load_vocabulary=lambda era_id: {"era_id": era_id},
        load_found_signal_pnl=found.load,
        found_signal_pool=found.found_signal_pool,
        correlate_per_pool=found.correlate_per_pool,
        compute_mi_per_pool=found.compute_mi_per_pool,
        runtime_freshness_guard=sync.runtime_freshness_guard,
    )
    init_simulate_signal(sync, auth, vault, plain, tracker, era)  #! arg-type
    init_simulate_signal(auth, sync, vault, plain, tracker, era, compute_search_plan=found.load)  #! arg-type
"""  # noqa: E501


class Failure(Exception):
    """A check did not hold."""


def run(
    *arguments: str, work: Path, kit: Path | None, path: tuple[Path, ...] = ()
) -> tuple[bool, str]:
    """Run a module of this environment elsewhere than here; tell whether it succeeded and said."""
    search = os.pathsep.join(str(entry) for entry in (*path, *([kit] if kit else [])))
    environment = {**os.environ, "MYPYPATH": search, "PYTHONPATH": str(kit or "")}
    command = [sys.executable, "-m", *arguments]
    ended = subprocess.run(
        command, cwd=work, env=environment, capture_output=True, text=True, check=False
    )
    return ended.returncode == 0, ended.stdout + ended.stderr


def check_found() -> None:
    """The module and its stub come from this environment, not from a folder of sources."""
    spec = importlib.util.find_spec(MODULE)
    if spec is None or spec.origin is None or not spec.origin.startswith(sys.prefix):
        raise Failure(f"{MODULE} is not installed in {sys.prefix}")
    if not STUB.is_file():
        raise Failure(f"the wheel has brought no {STUB.relative_to(PURELIB)}")


def check_stubtest(work: Path, kit: Path) -> None:
    """The stub agrees with the module, and stubtest would notice if it did not."""
    stubtest = functools.partial(
        run, "mypy.stubtest", MODULE, "--mypy-config-file", "mypy.ini", work=work, kit=kit
    )
    agrees, said = stubtest()
    if not agrees:
        raise Failure(said)
    wrong = work / "wrong" / "quillstone" / "simulate_signal.pyi"
    wrong.parent.mkdir(parents=True)
    wrong.write_text(STUB.read_text().replace("fail_fast: bool = True", "fail_fast: bool = False"))
    agrees, said = stubtest(path=(wrong.parent.parent,))
    if agrees or "fail_fast" not in said:
        raise Failure(f"a wrong default in the stub was not noticed:\n{said}")


def declarations(body: list[ast.stmt], prefix: str = "") -> Iterator[tuple[str, str | None]]:
    """Names that a stub declares, with their docstrings."""
    for statement in body:
        match statement:
            case ast.ClassDef(name=name) | ast.FunctionDef(name=name):
                yield prefix + name, ast.get_docstring(statement)
                if isinstance(statement, ast.ClassDef):
                    yield from declarations(statement.body, f"{prefix}{name}.")
            case ast.AnnAssign(target=ast.Name(id=name)) | ast.Assign(targets=[ast.Name(id=name)]):
                yield prefix + name, None
            case ast.ImportFrom(names=names):
                yield from ((prefix + (alias.asname or alias.name), None) for alias in names)


def check_complete(kit: Path) -> None:
    """The stub declares every name of the module, and says the same about the public ones."""
    sys.path.insert(0, str(kit))
    module = importlib.import_module(MODULE)
    declared = dict(declarations(ast.parse(STUB.read_text()).body))
    standard = {
        name
        for name, value in vars(module).items()
        if isinstance(value, types.ModuleType) and not value.__name__.startswith("quillstone.")
    }
    names = {name for name in vars(module) if not name.startswith("__")}
    missing = names - standard - {"dataclass"} - declared.keys()
    if missing:
        raise Failure(f"the stub does not declare {', '.join(sorted(missing))}")
    public = [name for name in declared if name.split(".")[0] in module.__all__]
    if not any("." in name for name in public):
        raise Failure("the stub declares no method")
    for name in public:
        try:
            value = functools.reduce(getattr, name.split("."), module)
        except AttributeError:
            continue  # of instances only
        documented = inspect.getdoc(value) if callable(value) else None
        plain_method = name.rpartition(".")[2].startswith("_")
        if documented and not plain_method and documented.split() != (declared[name] or "").split():
            raise Failure(f"the stub documents {name} otherwise than the module does")


def check_reports(script: str, work: Path, kit: Path | None, *options: str) -> None:
    """Mypy reports the marked lines of a script and no others."""
    (work / "script.py").write_text(script)
    _, said = run("mypy", "--config-file", "mypy.ini", *options, "script.py", work=work, kit=kit)
    reported: dict[int, set[str]] = {}
    for line, code in re.findall(r"^script\.py:(\d+): error: .*\[([\w-]+)\]$", said, re.MULTILINE):
        reported.setdefault(int(line), set()).add(code)
    expected = {
        number: set(marked.split(", "))
        for number, line in enumerate(script.splitlines(), start=1)
        if (marked := line.partition("#! ")[2])
    }
    if reported.keys() != expected.keys() or any(
        not reported[line] & codes for line, codes in expected.items()
    ):
        raise Failure(f"expected reports on {expected}, got:\n{said}")


def installed_kit(work: Path, kit: Path, *, typed: bool) -> str:
    """An environment that the kit is installed in; it sees the wheel as well."""
    home = work / ("typed" if typed else "untyped")
    venv.create(home, with_pip=False, symlinks=True)
    site = home / PURELIB.relative_to(sys.prefix)
    (site / "wheel.pth").write_text(f"{PURELIB}\n")
    (site / "quillstone").symlink_to(kit / "quillstone")
    if typed:
        (site / "quillstone").unlink()
        (site / "quillstone").mkdir()
        for part in (kit / "quillstone").iterdir():
            (site / "quillstone" / part.name).symlink_to(part)
        (site / "quillstone" / "py.typed").touch()
    return str(home / "bin" / "python")


def check_examples(work: Path, kit: Path, examples: Path) -> None:
    """The examples pass in the strict mode."""
    sources = sorted(str(path) for path in examples.glob("*.py"))
    passed, said = run(
        "mypy", "--config-file", "mypy.ini", *sources, work=work, kit=kit, path=(examples,)
    )
    if not passed or not sources:
        raise Failure(said)


def main() -> None:
    """Run all checks; the first that does not hold ends the program."""
    kit, examples = (Path(argument).resolve() for argument in sys.argv[1:3])
    with tempfile.TemporaryDirectory() as folder:
        work = Path(folder).resolve()
        (work / "mypy.ini").write_text(CONFIG)

        def executable(typed: bool) -> str:
            return f"--python-executable={installed_kit(work, kit, typed=typed)}"

        checks = {
            "the wheel has brought module and stub": check_found,
            "the stub agrees with the module": lambda: check_stubtest(work, kit),
            "the stub is complete": lambda: check_complete(kit),
            "the kit beside on a path": lambda: check_reports(CALLS, work, kit),
            "the kit installed": lambda: check_reports(CALLS, work, None, executable(False)),
            "the kit installed and typed": lambda: check_reports(
                CALLS, work, None, executable(True)
            ),
            "the kit's collaborators fit": lambda: check_reports(WIRING, work, kit),
            "the examples": lambda: check_examples(work, kit, examples),
        }
        for title, check in checks.items():
            try:
                check()
            except Failure as failure:
                sys.exit(f"{title}: FAILED\n{failure}")
            print(f"{title}: ok", flush=True)


if __name__ == "__main__":
    main()

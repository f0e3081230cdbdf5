"""The module as its users meet it: help, introspection, results on their way, loading it twice."""

import copy
import dataclasses
import importlib
import inspect
import linecache
import multiprocessing
import os
import pickle
import pydoc
import subprocess
import sys
import traceback
from concurrent.futures import ProcessPoolExecutor
from pathlib import Path

import numpy as np
import pytest

import quillstone.simulate_signal as qs
from collaborators import PATIENCE

MODULE = "quillstone.simulate_signal"


def own_functions():
    """Every function and method of the module, by its qualified name."""
    for holder in (vars(qs), *(vars(v) for v in vars(qs).values() if inspect.isclass(v))):
        for value in holder.values():
            if getattr(value, "__module__", None) == MODULE and not inspect.isclass(value):
                yield value.__qualname__, value


def without_blanks(text):
    return "".join(text.split())


@pytest.mark.parametrize("subject", ["", *qs.__all__])
def test_help_shows_functions_with_their_parameters_and_summaries(subject):
    shown = pydoc.plain(pydoc.render_doc(f"{MODULE}.{subject}".rstrip(".")))
    for name, function in own_functions():
        owner, _, plain = name.rpartition(".")
        holder = owner or plain
        if not plain.startswith("_") and (
            holder == subject or (not subject and holder in qs.__all__)
        ):
            signature = f"{plain}{inspect.signature(function)}"
            assert without_blanks(signature) in without_blanks(shown), name
            assert inspect.getdoc(function).partition("\n")[0] in shown, name
    if inspect.isclass(getattr(qs, subject, None)):
        assert f"class {subject}(" in shown


def test_signatures_agree_with_how_functions_bind():
    functions = dict(own_functions())
    assert {
        "simulate_signal",
        "_coerce_era_id",
        "SimulationHandle._run_pipeline",
    } < functions.keys()
    for name, function in functions.items():
        parameters = inspect.signature(function).parameters.values()
        shown = {p.name: p.default for p in parameters if p.default is not p.empty}
        positional = [
            p.name for p in parameters if p.kind in (p.POSITIONAL_ONLY, p.POSITIONAL_OR_KEYWORD)
        ]
        bound = dict(function.__kwdefaults__ or {})
        defaults = function.__defaults__ or ()
        if name in ("simulate_signal", "simulate_strategy"):
            # What is published asks for more than what binds: the universe by name, and a pool.
            assert defaults == (shown.pop("named_universe"),) == (None,)
            assert bound.pop(f"{name.removeprefix('simulate_')}_pool_id") is None
        else:
            bound.update(zip(positional[len(positional) - len(defaults) :], defaults, strict=True))
        assert shown == bound, name
        assert repr(function).startswith(f"<function {name} at 0x"), name


def test_result_of_a_run_travels(kit):
    kit.tested.stats = None
    kit.tested.factor_pnl = np.arange(3.0)
    kit.tested.per_column_stats = {"net_sharpe": 1.5, "history": [1.0, [2.0]]}
    handle = kit.start(record=False)
    result, status = handle.result(), handle.status()
    with ProcessPoolExecutor(1, mp_context=multiprocessing.get_context("spawn")) as pool:
        far = pool.submit(dataclasses.replace, result, passed=False).result(PATIENCE)
        assert pool.submit(copy.copy, status).result(PATIENCE) == status
    assert (type(far), far.passed, result.passed) == (qs.SimulationResult, False, True)
    plain = {"factor_pnl": None, "per_column_stats": None, "passed": True}  # arrays have no one ==
    twins = [pickle.loads(pickle.dumps(result, n)) for n in range(pickle.HIGHEST_PROTOCOL + 1)]
    for twin in (far, *twins, copy.deepcopy(result)):
        np.testing.assert_array_equal(twin.factor_pnl, result.factor_pnl)
        assert twin.factor_pnl is not result.factor_pnl
        twin.per_column_stats["history"][1].append(3.0)
        assert dataclasses.replace(twin, **plain) == copy.replace(result, **plain)
        assert dataclasses.replace(twin, **plain, mi_score=0.5) != copy.replace(result, **plain)
    assert dataclasses.asdict(result)["per_column_stats"] == {
        "net_sharpe": 1.5,
        "history": [1.0, [2.0]],
    }
    assert copy.copy(result).per_column_stats is result.per_column_stats


@pytest.mark.parametrize("again", ["reload", "import_module"])
def test_module_loaded_again_is_the_one_object_as_it_stands(monkeypatch, again):
    monkeypatch.setitem(sys.modules, MODULE, qs)
    monkeypatch.setattr(qs, "_auth", "kept")
    monkeypatch.setattr(qs, "_sync_in_progress", True)
    if again == "import_module":
        del sys.modules[MODULE]
    before = {name: value for name, value in vars(qs).items() if not name.startswith("__")}
    assert (
        getattr(importlib, again)(qs if again == "reload" else MODULE) is qs is sys.modules[MODULE]
    )
    assert [name for name, value in before.items() if vars(qs)[name] is not value] == []


@pytest.mark.parametrize(
    ("kind", "loads_first"), [("isolated", True), ("legacy", True), ("legacy", False)]
)
def test_second_interpreter_is_refused_and_does_no_harm(kind, loads_first):
    attempt = f"""
import sys, warnings
warnings.simplefilter("ignore")
sys.path[:] = {sys.path!r}
try:
    import {MODULE}
    print("loaded")
except ImportError as error:
    print("refused" if {MODULE!r} in str(error) else error)
"""
    script = f"""
import _interpreters
if {loads_first}:
    import {MODULE} as qs
for _ in range(4):
    other = _interpreters.create({kind!r})
    assert _interpreters.exec(other, {attempt!r}) is None
    _interpreters.destroy(other)
exec({attempt!r})
assert not {loads_first} or (sys.modules[{MODULE!r}] is qs and qs._coerce_era_id("3") == 3)
"""
    env = {**os.environ, "PYTHONPATH": os.pathsep.join(filter(None, sys.path))}
    command = [sys.executable, "-X", "faulthandler", "-c", script]
    ended = subprocess.run(
        command, env=env, capture_output=True, text=True, timeout=60, check=False
    )
    assert ended.returncode == 0, ended.stderr
    assert ended.stdout.split() == [*["refused"] * 4, "loaded"]


PHASES = {
    "get_wallet_secret": ("_check_graph_and_dependencies", "driver.cpp"),
    "request_for_sync": ("_sync_data", "sync.cpp"),
    "init_if_needed": ("_prepare_vault_and_vocabulary", "sync.cpp"),
    "validate": ("_validate_graph_and_select_pool", "configuration.cpp"),
    "evaluate_expression": ("_evaluate_expression", "evaluation.cpp"),
    "backtest": ("_backtest_and_gate", "backtest.cpp"),
}


@pytest.mark.parametrize("place", PHASES)
def test_traceback_leads_through_the_phase_to_the_collaborator(kit, place):
    def broken(*args, **kwargs):
        raise LookupError("no data")

    kit.script.on(place, broken)
    frames = traceback.extract_tb(kit.failure().__traceback__)
    names = [frame.name for frame in frames]
    *_, pipeline, function, answer, last = [n for n in names if n != "_evaluate_and_finalize"]
    source = f"quillstone/simulate_signal/pipeline/{PHASES[place][1]}"
    phase = frames[names.index(function)]
    assert (pipeline, function, phase.filename) == ("_run_pipeline", PHASES[place][0], source)
    assert (answer, last) == ("answer", "broken")
    line = linecache.getline(str(Path(__file__).parent.parent / source), phase.lineno)
    assert "(" in line, "the line is not that of a call"

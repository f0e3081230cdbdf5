"""The page on wiring tells what happens: its tables against recorded runs, its kit as it stands."""

import re
import tempfile
import threading
from itertools import product
from pathlib import Path

import numpy as np
import pytest

import collaborators
import quillstone.simulate_signal as qs
from collaborators import Kit, Script, Scripted, ended

PAGE = (Path(__file__).parents[1] / "docs" / "wiring.md").read_text("utf-8")
KINDS, STAGES = ("signal", "strategy"), ("evaluation", "backtest")
SHAPES = list(product(KINDS, ("backtest", "run_backtest"), (None, "instance", "class")))
RENAMED = [("^gate:.*", "evaluate_threshold_gates"), ("^Batch.*", "BatchOrchestrator_cls")]


def table(heading):
    rows = re.findall(r"^\| (.*) \|$", PAGE.split(f"\n## {heading}\n")[1].split("\n## ")[0], re.M)
    return [row.replace("`", "").split(" | ") for row in rows[2:]]


def call_row(status, text, without, raises, _answer):
    holder, name, arguments = re.fullmatch(r"(?:(\w+)\.)?(\w+)\((.*)\)", text).groups()
    keywords = frozenset(re.findall(r"(\w+)=", arguments))
    positional = len(re.findall(r"\w+", arguments)) - len(keywords)
    return (status, name, positional, keywords), holder, without, raises


CALLS = [call_row(*row) for row in table("The calls of a simulation, in order")]
READ = [row[:3] for row in table("What is read")]


@pytest.fixture
def make_kit(tmp_path, monkeypatch, caplog):
    """Makes kits that offer all there is, note each call, and raise `fault` from `failing`."""
    handles = []

    def run_pipeline(handle, original=qs.SimulationHandle._run_pipeline):
        handles.append(handle)
        original(handle)

    class Noting(Script):
        failing, fault = None, LookupError("scripted")

        def answer(self, name, default, *args, **kwargs):
            late = name.startswith(("record", "release"))
            status = handles[-1]._status.phase if handles else "(wiring)"
            for handle in handles:
                assert (threading.current_thread() is handle._thread) is not late
                assert (handle._lock.locked(), qs._sync_lock.locked()) == (late, False)
            status = "ended" if late else "any" if name == "set_phase" else status
            for known, named in RENAMED:
                name = re.sub(known, named, name)
            self.calls.append((status, name, len(args), frozenset(kwargs)))
            if self.calls[-1] == self.failing:
                raise self.fault
            return self._answers.get(name, lambda *args, **kwargs: default)(*args, **kwargs)

    def make(kind="signal", flavour="backtest", orchestrator=None):
        handles.clear()
        caplog.clear()
        kit = Kit(tmp_path, flavour, orchestrator)
        guard = ("register_module_consumer", *(f"ensure_fresh_before_{s}" for s in STAGES))
        kit.pieces["runtime_freshness_guard"] = Scripted(kit.script, dict.fromkeys(guard))
        kit.tested.stats = stats = Scripted(kit.script, **vars(kit.stats))
        kit.tested.found_signal_ids, kit.evaluated.weights = ["f1"], np.ones((2, 2))
        tested = Scripted(kit.script, **vars(kit.tested))
        kit.script.on(flavour, lambda *args, **kwargs: tested)
        kit.backtester.raw_backtester = None
        kit.era["transform_pipeline"] = [{"name": "size", "default": "l1_resize"}]
        kit.parts, kit.kind = {**kit.pieces, "backtest": tested, "stats": stats}, kind
        kit.log = caplog
        return kit

    monkeypatch.setattr(collaborators, "Script", Noting)
    monkeypatch.setattr(qs.SimulationHandle, "_run_pipeline", run_pipeline)
    return make


def attempt(action):
    try:
        return action() and None
    except Exception as error:
        return error


def outcome(kit):
    """How a run ends, in the words of the page, and the error if there is one."""
    if error := attempt(kit.wire):
        return "the wiring", error
    handle = ended(kit.start(kit.kind))
    first, second = attempt(handle.result), attempt(handle.result)
    assert second in (None, first)
    if first is None:
        return "logged" if kit.log.records else "ignored", None
    return "this result()" if second is None else "ends the run", first


def test_calls(make_kit):
    made = {}
    for shape in SHAPES:
        kit = make_kit(*shape)
        kit.run(kit.kind)
        order = [[row[0] for row in CALLS].index(c) for c in kit.script.calls if c[0] != "any"]
        assert order == sorted(order)
        made = dict.fromkeys(kit.script.calls, shape) | made
    assert set(made) == {row[0] for row in CALLS}
    for call, holder, without, raises in CALLS:
        kit = make_kit(*made[call])
        kit.script.failing = call
        error = None if raises in ("logged", "ignored") else kit.script.fault
        assert outcome(kit) == (raises, error)
        kit = make_kit(*made[call])
        vars(kit.parts[holder]).pop(call[1]) if holder else kit.pieces.update({call[1]: None})
        error = without == "imported" or outcome(kit)[1]
        assert without in ("imported", "skipped" if error is None else type(error).__name__)


def test_attributes(make_kit, monkeypatch):
    kit, read = make_kit(), set()
    names = {id(part): name for name, part in kit.parts.items()}

    def note(part, name):
        read.add((names.get(id(part)), name))
        return object.__getattribute__(part, name)

    with monkeypatch.context() as patch:
        patch.setattr(Scripted, "__getattribute__", note, raising=False)
        kit.run()
    read -= {(holder, call[1]) for call, holder, *_ in CALLS}
    read = {(of, name) for of, name in read if of and name != "__class__"}
    assert read == {(of, name) for of, name, _ in READ}
    for of, name, without in READ:
        kit = make_kit()
        vars(kit.parts[of]).pop(name, None)
        error = type(outcome(kit)[1]).__name__
        assert error == (without if without.endswith("Error") else "NoneType"), name


@pytest.mark.parametrize(("given", "error", "text"), table("Wiring and answers that end a run"))
def test_what_ends_a_run(make_kit, given, error, text):
    kit = make_kit()
    exec(given, {"era": kit.era, "pool": kit.signal_pool}, kit.pieces)
    how, raised = outcome(kit)
    assert (how, type(raised).__name__) == ("ends the run", error)
    assert re.fullmatch(re.sub("<.*?>", ".*", re.escape(text)), str(raised))


def test_the_least_kit_runs(tmp_path, monkeypatch, capsys):
    monkeypatch.setattr(tempfile, "tempdir", str(tmp_path))
    exec(re.search("```python\n(.*?)```", PAGE, re.DOTALL)[1], {})
    shown = capsys.readouterr().out
    assert shown.startswith("recorded: BacktestStats(sharpe=")
    assert "  passed=True,\n" in shown

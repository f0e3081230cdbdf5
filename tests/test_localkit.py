"""The stand-in kit: it computes rightly, notices what changes on disk, and repairs what breaks."""

import gzip
import json
import math
import sqlite3
import statistics
import threading

import numpy as np
import pytest

import quillstone.simulate_signal as qs
from collaborators import PATIENCE, ended, raises_exactly
from quillstone._threshold_gates import evaluate_threshold_gates
from quillstone.agent_onboarding import onboard
from quillstone.local_data.price_csv import PriceFileError, read_prices
from quillstone.simulator_engine.graph_validator import GraphValidationError

DAYS, TICKERS, CHANGE = 700, 8, 500


def prices(future=0):
    """Closes that trend slowly and fall the more the wilder they are; days from CHANGE on vary."""
    drift, spread = np.linspace(0.0012, -0.0012, TICKERS), np.linspace(0.008, 0.02, TICKERS)
    rng, trend, closes = np.random.default_rng(3), np.zeros(TICKERS), np.full((DAYS, TICKERS), 50.0)
    for day in range(1, DAYS):
        if day == CHANGE:
            rng = np.random.default_rng(future)
        trend = 0.985 * trend + rng.normal(0.0, 0.0006, TICKERS)
        closes[day] = closes[day - 1] * np.exp(drift + trend + spread * rng.normal(size=TICKERS))
    return closes


def write_prices(file, closes):
    days = np.datetime64("2010-01-04") + np.arange(len(closes))
    rows = [",".join(map(repr, row)) for row in closes.tolist()]
    lines = [f"{day},{row}" for day, row in zip(days, rows, strict=True)]
    file.write_text("\n".join(["Date," + ",".join("ABCDEFGH"), *lines]))
    return file


def rotation(name, *children):
    children = [{"type": "feature", "name": c} if isinstance(c, str) else c for c in children]
    return {"type": "rotation", "name": name, "children": children}


MOMENTUM = rotation("rank", "momentum_60d")
CALM = rotation("linear_decay", rotation("rank", rotation("negate", "volatility_60d")))
FAST = rotation("rank", "returns_1d")
ALL = [{"type": "filtration", "name": "all"}]
BLEND = {"type": "reduction", "name": "sharpe_weighted", "params": {"window": 60}, "children": ALL}


@pytest.fixture
def start(tmp_path, request):
    """Onboards on prices written below `tmp_path`."""

    def begin(name="desk", closes=None, **options):
        (tmp_path / name).mkdir()
        file = write_prices(tmp_path / name / "closes.csv", prices() if closes is None else closes)
        runtime = onboard(file, tmp_path / name, **options)
        request.addfinalizer(runtime.tracker.close)
        return runtime

    return begin


def simulate(graph, pool="alpha", kind="signal", **options):
    run = getattr(qs, f"simulate_{kind}")
    return run(graph, return_weights=True, **{f"{kind}_pool_id": pool}, **options).result()


def session(runtime):
    """The results of signals, and of a strategy over those that passed."""
    results = []
    for graph in (MOMENTUM, CALM, FAST):
        results.append(simulate(graph))
        if results[-1].failure_reason is None:
            runtime.accept(qs._typed_runtime_graph(graph), results[-1])
    runtime.refresh_useful_signals("alpha")
    metaparameters = {"smooth": "decay_5d"}
    return [*results, simulate(BLEND, "blend", "strategy", metaparameters=metaparameters)]


def test_session_and_its_figures(start):
    closes = prices()
    runtime = start(closes=closes)
    universe = {"id": "closes", "named_universe": "closes", "rule_id": 1, "market_id": 1}
    options = qs.effective_simulation_options(runtime.era_config)
    assert options["universe_options"] == [universe]
    assert set(options["engine_definitions"]) == {"backtest", "correlation", "marginal_improvement"}
    results = session(runtime)
    assert [result.failure_reason for result in results] == [None, None, "thresholds", None]
    moves = closes[1:] / closes[:-1] - 1.0
    for result in results:
        weights = result.processed_weights
        trades = abs(weights - np.vstack([np.zeros(TICKERS), weights[:-1]])).sum(axis=1)
        earned = (weights[:-1] * moves).sum(axis=1) - trades[:-1] * 2.0 / 10_000.0
        held = weights.any(axis=1)
        pnl = earned[held.argmax() :].tolist()
        sharpe = statistics.fmean(pnl) / statistics.stdev(pnl) * math.sqrt(252)
        wealth = np.cumprod([1.0, *(1.0 + gain for gain in pnl)])
        drawdown = max(1.0 - wealth[day:].min() / wealth[day] for day in range(len(wealth)))
        stats = result.per_column_stats
        assert stats["pnl_net_sharpe"] == pytest.approx(sharpe)
        assert stats["pnl_net_returns"] == pytest.approx(statistics.fmean(pnl) * 252)
        assert stats["pnl_net_drawdown"] == pytest.approx(drawdown)
        assert result.stats.turnover == pytest.approx(trades[held].mean())
        assert weights.sum(axis=1) == pytest.approx(0.0, abs=1e-12)
        assert abs(weights[held]).sum(axis=1) == pytest.approx(1.0)
    rows = runtime.tracker.evaluations()
    assert [row["per_column_stats"] for row in rows] == [r.per_column_stats for r in results]
    assert rows[-1]["referenced_signal_ids"] == [row["graph_hash"] for row in rows[:2]]


def test_future_prices_change_no_weight_of_the_past(start):
    sessions = []
    for future in (0, 1):
        results = session(start(str(future), prices(future)))
        graphs = [{"type": "feature", "name": name} for name in qs._vocabulary_raw["features"]]
        for entry in qs._vocabulary:
            if entry.function_type == "rotation":
                graphs.append(
                    rotation(entry.name, *("returns_5d", "volatility_20d")[: entry.arity])
                )
        sessions.append([*results, *(simulate(graph, include_mi=False) for graph in graphs)])
    for results in zip(*sessions, strict=True):
        one, other = (result.processed_weights for result in results)
        assert np.array_equal(one[:CHANGE], other[:CHANGE])
        assert not np.array_equal(one[CHANGE:], other[CHANGE:])


def test_simulations_at_the_same_time_do_not_meet(start):
    names = ("returns_5d", "reversal_20d", "volatility_60d", "skewness_60d")
    together, met = threading.Barrier(len(names)), []
    runtime = start(
        set_phase=lambda phase: met and phase == "computing_mi" and met[0].wait(PATIENCE)
    )
    runtime.accept(qs._typed_runtime_graph(MOMENTUM), simulate(MOMENTUM))
    options = {"signal_pool_id": "alpha", "fail_fast": False}
    graphs = [rotation("rank", name) for name in names]
    alone = [qs.simulate_signal(graph, **options).result() for graph in graphs]
    # Each has its backtest behind it before any compares its own with what was found.
    met.append(together)
    handles = [qs.simulate_signal(graph, **options) for graph in graphs]
    for first, second in zip(alone, [handle.result() for handle in handles], strict=True):
        assert first.per_column_stats == second.per_column_stats
        assert (first.is_correlation, first.mi_score) == (second.is_correlation, second.mi_score)
    assert not together.broken


DESK_FUNCTIONS = """
from quillstone.functions._base import Rotation

class Square(Rotation):
    NAME, FAMILY, SUBFAMILY = "bend", "desk", "power"
    __call__ = lambda self, x: x * abs(x)

class Cube(Square):
    __call__ = lambda self, x: x * x * x
"""


def test_a_rotation_added_while_the_process_runs(start, tmp_path, monkeypatch):
    (tmp_path / "desk_functions.py").write_text(DESK_FUNCTIONS)
    monkeypatch.syspath_prepend(tmp_path)
    edits = {}
    runtime = start(set_phase=lambda phase: edits.pop(phase, lambda: None)())
    file = next(runtime.sync_manager.data_dir.glob("*/vocabulary.json"))

    def offer(class_name):
        import desk_functions

        vocabulary, added = json.loads(file.read_text()), getattr(desk_functions, class_name)
        vocabulary["rotations"]["desk"] = {"power": [added.record()]}
        file.write_text(json.dumps(vocabulary))

    x = "returns_20d"
    square, cube = (
        simulate(rotation("multiply", x, factor)).processed_weights
        for factor in (rotation("absolute", x), rotation("multiply", x, x))
    )
    with pytest.raises(GraphValidationError, match="unknown rotation 'bend'"):
        simulate(rotation("bend", x))
    offer("Square")
    assert np.array_equal(simulate(rotation("bend", x)).processed_weights, square)
    # Another one after the graph has been validated, before it is evaluated.
    edits["evaluating"] = lambda: offer("Cube")
    assert np.array_equal(simulate(rotation("bend", x)).processed_weights, cube)
    assert runtime.sync_manager.request_for_sync().repaired == ()


@pytest.mark.parametrize(
    "damage", [None, lambda old: old[:-9], lambda old: bytes([old[0] ^ 255]) + old[1:]]
)
def test_damaged_artifacts_are_repaired(start, damage):
    manager = start().sync_manager
    whole = simulate(MOMENTUM)
    for path in manager.get_manifest()["artifacts"]:
        file = manager.data_dir / path
        content = file.read_bytes()
        if damage is None:
            file.unlink()
        else:
            file.write_bytes(damage(content))
        report = manager.request_for_sync()
        assert (report.repaired, report.written) == ((path,), ())
        assert path == "shuffle_seed.enc" or file.read_bytes() == content
    (manager.data_dir / "manifest.json").write_text("{")
    assert simulate(MOMENTUM).per_column_stats == whole.per_column_stats


def test_new_prices_leave_nothing_of_the_old_ones(start, tmp_path):
    runtime = start()
    runtime.accept(qs._typed_runtime_graph(MOMENTUM), simulate(MOMENTUM))
    assert simulate(CALM).mi_score < math.inf
    write_prices(tmp_path / "desk" / "closes.csv", prices(future=1)[:-1])
    result = simulate(CALM)
    assert len(result.processed_weights) == DAYS - 1
    assert (result.mi_score, result.is_correlation) == (math.inf, 0.0)
    assert runtime.found_signals.found_signal_pool == {}
    assert runtime.refresh_useful_signals("alpha") == []


@pytest.mark.parametrize(
    ("content", "message"),
    [
        ("D,A,B\n2020-01-01,1,x\n", "row 2, column 'B': 'x' is not a number"),
        ("D,A,B\n2020-01-01,1,2\n\n2020-01-02,0,2", "row 4, column 'A': 0 is not a positive price"),
        ("D,A,B\n2020-01-01,1e300,2\n",
         "row 2, column 'A': 1e300 is no plausible price (1e-06 to 1e+12)"),
        ("D,A,B\n2020-13-01,1,2", "row 2, column 'D': '2020-13-01' is not a date (YYYY-MM-DD)"),
        ("D,A,B\n2020-01-02,1,2\n2020-01-01,1,2",
         "row 3, column 'D': 2020-01-01 comes after 2020-01-02; dates must ascend"),
        ("D,A,B\n2020-01-02,1\n", "row 2: 2 columns where the heading has 3"),
        ("D,A,B\n2020-01-02,1,\xff\n", "row 2: not UTF-8 text"),
    ],
)  # fmt: skip
def test_bad_prices_are_named_by_row_and_column(content, message):
    content = content.encode("latin-1")
    for form in (content, gzip.compress(content)):
        with raises_exactly(PriceFileError, f"closes.csv, {message}"):
            read_prices(form, "closes.csv")


def test_an_evaluation_is_recorded_whole_or_not_at_all(start):
    tracker = start().tracker
    handle = ended(qs.simulate_signal(MOMENTUM, signal_pool_id="alpha"))
    record = handle._pending_recording[1]
    with sqlite3.connect(tracker.path) as other:
        fault = "BEGIN SELECT RAISE(FAIL, 'full'); END"
        other.execute(f"CREATE TRIGGER broken AFTER INSERT ON evaluations {fault}")
        with pytest.raises(sqlite3.IntegrityError, match="full"):
            handle.result()
        other.execute("DROP TRIGGER broken")
    with pytest.raises(OverflowError):
        tracker.record_signal_evaluation(**record | {"era_id": 2**63})
    assert tracker.evaluations() == []
    tracker.record_signal_evaluation(**record)
    assert [row["graph_hash"] for row in tracker.evaluations()] == [record["graph"].graph_hash]


BAD = (None, True, "1", math.nan)


@pytest.mark.parametrize(
    ("field", "value", "limit", "passes"),
    [
        *(("min_sharpe", 1.0, limit, limit <= 1.0) for limit in (0.9, 1.0, 1.1, math.inf)),
        *(("max_turnover", 1.0, limit, limit >= 1.0) for limit in (0.9, 1.0, 1.1)),
        *(("min_sharpe", 2.0, limit, False) for limit in BAD),
        *((field, value, 0.5, False) for field in ("min_sharpe", "max_turnover") for value in BAD),
        ("min_sharpe", math.inf, 0.5, True),
        ("max_turnover", -math.inf, 0.5, False),
        ("max_weight", 0.0, 0.5, False),
    ],
)
def test_gate_rules(field, value, limit, passes):
    judged = {"metrics": {"sharpe": value, "turnover": value}, "threshold_set": {field: limit}}
    assert evaluate_threshold_gates(**judged).passed is passes
    judged["threshold_set"]["bypassed_thresholds"] = [field]
    assert evaluate_threshold_gates(**judged).passed

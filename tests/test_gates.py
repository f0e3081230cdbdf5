"""Phases 8 to 10: backtest, the four gates, the result and the record; the gate predicates."""

import math
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import ended, node, raises_exactly
from quillstone.errors import SdkRuntimeNotReadyError
from quillstone.search_tracking import BacktestStats

DETAIL = {
    "invalid_weights": "Selected pool structural backtest check failed",
    "thresholds": "Selected pool threshold check failed",
    "correlation": "Selected pool correlation threshold failed",
    "pnl_mi": "Selected pool PnL MI threshold failed",
}
GATES = {"thresholds": "metrics", "correlation": "is_correlation", "pnl_mi": "is_pnl_mi"}
COMBINATIONS = [
    tuple(reason for bit, reason in enumerate(DETAIL) if number >> bit & 1) for number in range(16)
]


@pytest.mark.parametrize("fail_fast", [True, False])
@pytest.mark.parametrize("failing", COMBINATIONS)
def test_gate_matrix(kit, logged, failing, fail_fast):
    kit.tested.found_signal_ids = ["f1"]
    kit.tested.structural_failed = "invalid_weights" in failing
    kit.failing_gates = {GATES[reason] for reason in failing if reason in GATES}
    handle = ended(kit.start(fail_fast=fail_fast))
    record = handle._pending_recording[1]
    result = handle.result()

    reason = next((name for name in DETAIL if name in failing), None)
    before_mi = [name for name in failing if name != "pnl_mi"]
    passed = not {"invalid_weights", "thresholds"} & set(failing)
    assert (result.failure_reason, result.failure_detail) == (reason, DETAIL.get(reason))
    assert record["rejection_reason"] == DETAIL.get(reason)
    assert result.rejection_reason is None
    assert result.passed is record["passed_thresholds"] is passed
    assert result.structural_failed is ("invalid_weights" in failing)
    assert result.was_diagnostic_only is bool(before_mi and not fail_fast)

    names = kit.script.names()
    assert ("gate:metrics" in names) is not (fail_fast and "invalid_weights" in failing)
    correlated = passed or not fail_fast
    assert ("correlate_per_pool" in names) is ("gate:is_correlation" in names) is correlated
    assert result.is_correlation == (0.3 if correlated else 0.0)
    entered = not before_mi or not fail_fast
    assert ("compute_mi_per_pool" in names) is entered
    mi_passed = "pnl_mi" not in failing
    expected = (0.5, mi_passed, 0.1) if entered else (None, None, None)
    assert (result.mi_score, result.mi_passed, result.is_pnl_mi) == expected
    phases = [args[0] for name, args, _ in kit.script.calls if name == "set_phase"]
    assert ("computing_mi" in phases) is entered
    assert logged() == []


@pytest.mark.parametrize("as_mapping", [True, False])
@pytest.mark.parametrize("kind", ["signal", "strategy"])
def test_result_and_record(kit, kind, as_mapping):
    if as_mapping:
        mapping = vars(kit.tested).copy()
        kit.tested = mapping
        kit.script.on("backtest", lambda **kwargs: mapping)
    strategy = kind == "strategy"
    graph = node("filtration" if strategy else "rotation", node())
    handle = ended(kit.start(kind, graph, metaparameters={"a": "b"}))
    expression_type, record = handle._pending_recording
    result = handle.result()
    assert expression_type == kind.upper()
    elapsed = result.expression_elapsed_seconds
    assert isinstance(elapsed, float)
    per_column = {"net_sharpe": 1.5, "net_returns": 0.1, "gross_sharpe": 9.0}
    assert result == qs.SimulationResult(
        stats=kit.stats,
        factor_pnl="factor pnl",
        per_column_stats=per_column,
        portfolio_returns="returns",
        processed_weights="processed",
        pool_kind=kind,
        signal_pool_id="p1",
        strategy_pool_id="s1" if strategy else None,
        is_correlation=0.0,
        is_pnl_mi=0.2 if strategy else 0.1,
        mi_score=math.inf,
        mi_passed=True,
        expression_elapsed_seconds=elapsed,
        resolved_metaparameters={"a": "b"},
    )
    stats = record.pop("stats")
    assert stats == BacktestStats(1.5, 0.1, 0.25, 0.0, 0.5, 0.125, 0.0, 0.0, {"adv": 2.0}, {})
    last = [("signal_pool_id", "p1")]
    if strategy:
        last = [("strategy_pool_id", "s1"), *last, ("referenced_signal_ids", ["u1"])]
    assert list(record.items()) == [
        ("source", "simulate"),
        ("graph", graph),
        ("named_universe", "top"),
        ("era_id", 7),
        ("passed_thresholds", True),
        ("rejection_reason", None),
        ("expression_elapsed_seconds", elapsed),
        ("metaparameters", {"a": "b"}),
        ("per_column_stats", per_column),
        *last,
    ]
    args, given = kit.script.arguments(f"record_{kind}_evaluation")
    assert (args, given) == ((), {**record, "stats": stats})
    assert list(given)[:10] == [*list(record)[:7], "stats", *list(record)[7:9]]


@pytest.mark.parametrize("missing", [True, False])
def test_optional_parts_of_the_backtest_output(kit, missing):
    for name in ("factor_pnl", "portfolio_returns", "processed_weights", "structural_failed",
                 "found_signal_ids", "per_column_stats"):  # fmt: skip
        if missing:
            delattr(kit.tested, name)
        elif name != "structural_failed":
            setattr(kit.tested, name, None)
    result = kit.run()
    assert (result.passed, result.structural_failed) == (True, False)
    assert (result.factor_pnl, result.portfolio_returns, result.processed_weights) == (None,) * 3
    assert kit.script.arguments("gate:metrics")[1]["metrics"]["sharpe"] == 0.0


def test_backtest_keywords(make_kit):
    for flavour in ("run_backtest", "backtest"):
        kit = make_kit(flavour)
        graph = node()
        kit.run(graph=graph, return_series="series?", return_weights="weights?")
        args, keywords = kit.script.arguments(flavour)
        asked = {"return_series": "series?", "return_weights": "weights?"}
        if flavour == "run_backtest":
            assert args[0] is graph
            assert keywords == {"metaparameters": {}, "named_universe": "top", **asked}
        else:
            assert args == ()
            era_config = keywords.pop("era_config")
            assert era_config == kit.era
            assert era_config is not kit.era
            expected = {"weights": "weights", "universe": "mask", "use_vault": True, **asked}
            assert keywords == expected
    kit = make_kit("run_backtest")
    kit.backtester.backtest = None
    assert kit.run().passed


def test_metrics_for_the_threshold_gate(kit):
    kit.run()
    assert kit.script.arguments("gate:metrics") == ((), {
        "metrics": {
            "sharpe": 1.5, "turnover": 0.25, "delta_exposure": 0.5, "max_weight": 0.125,
            "abs_weight_sum_mean": 0.0,
        },
        "threshold_set": {"sharpe": 1.0},
    })  # fmt: skip
    kit.stats.turnover, kit.stats.abs_weight_sum_mean = "0.75", math.nan
    kit.stats.max_weight, kit.stats.delta_exposure = math.inf, None
    kit.signal_pool["universes"] = {3: {}}
    kit.run()
    given = kit.script.arguments("gate:metrics")[1]
    assert list(given["metrics"].values()) == [1.5, 0.75, 0.0, 0.0, 0.0]
    assert given["threshold_set"] == {}
    kit.run("strategy")
    assert kit.script.arguments("gate:metrics")[1]["threshold_set"] == {"sharpe": 2.0}
    kit.stats.turnover = kit.stats.avg_turnover = None
    kit.run()
    assert kit.script.arguments("gate:metrics")[1]["metrics"]["turnover"] == 0.0


@pytest.mark.parametrize("kind", ["signal", "strategy"])
def test_found_signals_and_their_pnl(kit, kind):
    kit.tested.found_signal_ids = ["f2", "x", "f1", "f2"]
    kit.script.on("load_found_signal_pnl", lambda signal_id, pool_name: f"pnl of {signal_id}")
    kit.run(kind)
    pool_name = "blend" if kind == "strategy" else "alpha"
    loads = [entry[1:] for entry in kit.script.calls if entry[0] == "load_found_signal_pnl"]
    assert loads == [((i,), {"pool_name": pool_name}) for i in ("f2", "x", "f1")]
    limits = (0.6, 0.2) if kind == "strategy" else (0.7, 0.1)
    common = {"pool_name": pool_name, "pnl_column": "net"}
    assert kit.script.arguments("correlate_per_pool") == (
        (), {**common, "pnl_arrays": ["pnl of f2", "pnl of x", "pnl of f1"],
             "threshold": limits[0]},
    )  # fmt: skip
    _, given = kit.script.arguments("compute_mi_per_pool")
    assert list(given["pool_signals"]) == ["f2", "f1"]
    signals = {"f2": "entry 2", "f1": "entry 1"}
    assert given == {**common, "pool_signals": signals, "threshold": limits[1]}
    bypass = {"threshold_set": qs._POOL_METRIC_THRESHOLD_SET}
    for metric, value, limit in (("correlation", 0.3, limits[0]), ("pnl_mi", 0.5, limits[1])):
        assert kit.script.arguments(f"gate:is_{metric}")[1] == {
            "metrics": {f"is_{metric}": value},
            "pool_thresholds": {f"is_{metric}_threshold": limit},
            **bypass,
        }
    kit.era.update(correlation_pnl_column="c", mi_pnl_column="m")
    kit.run(kind)
    assert kit.script.arguments("correlate_per_pool")[1]["pnl_column"] == "c"
    assert kit.script.arguments("compute_mi_per_pool")[1]["pnl_column"] == "m"


def test_pool_thresholds_may_stand_per_universe(kit):
    kit.tested.found_signal_ids = ["f1"]
    for pool in (kit.signal_pool, kit.strategy_pool):
        for key in ("is_correlation_threshold", "is_pnl_mi_threshold",
                    "strategy_is_pnl_mi_threshold"):  # fmt: skip
            pool["universes"][3][key] = f"universe {key}"
            if pool.get(key) != 0.7:
                pool.pop(key, None)
    assert kit.run().is_pnl_mi == "universe is_pnl_mi_threshold"
    assert kit.script.arguments("correlate_per_pool")[1]["threshold"] == 0.7
    assert kit.run("strategy").is_pnl_mi == "universe strategy_is_pnl_mi_threshold"
    expected = "universe is_correlation_threshold"
    assert kit.script.arguments("correlate_per_pool")[1]["threshold"] == expected


@pytest.mark.parametrize("pool", [None, {}, {"other": "array"}])
@pytest.mark.parametrize("found", [[], ["f1"]])
@pytest.mark.parametrize("passes", [True, False])
def test_first_signal_of_a_pool_scores_infinity(kit, pool, found, passes):
    kit.tested.found_signal_ids = found
    kit.pieces["found_signal_pool"] = pool
    kit.failing_gates = set() if passes else {"is_pnl_mi"}
    result = kit.run(include_correlation=False)
    assert (result.mi_score, result.mi_passed) == (math.inf, passes)
    assert result.failure_detail == (None if passes else DETAIL["pnl_mi"])
    assert "compute_mi_per_pool" not in kit.script.names()
    assert kit.script.arguments("gate:is_pnl_mi")[1]["metrics"] == {"is_pnl_mi": math.inf}


@pytest.mark.parametrize("score", [None, True, "0.5", math.nan, math.inf, -math.inf, 10**400])
def test_unusable_score_is_a_warning(kit, caplog, score):
    kit.tested.found_signal_ids = ["f1"]
    kit.script.on("compute_mi_per_pool", lambda **kwargs: (score, "why"))
    result = kit.run()
    assert (result.mi_score, result.mi_passed, result.is_pnl_mi) == (None, False, 0.1)
    assert (result.failure_reason, result.passed) == ("pnl_mi", True)
    assert result.failure_detail == "Selected pool PnL MI computation unavailable"
    [entry] = caplog.records
    assert (entry.levelname, entry.msg, entry.args) == (
        "WARNING", "mi_computation_unavailable", ()
    )  # fmt: skip
    assert entry.pool == "alpha"
    assert "gate:is_pnl_mi" not in kit.script.names()


@pytest.mark.parametrize(
    ("value", "expected"),
    [(None, 0.0), ("1.5", 1.5), ("x", 0.0), (True, 1.0), (3, 3.0), (math.inf, 0.0),
     (-math.inf, 0.0), (math.nan, 0.0), ([], 0.0), (10**400, 0.0), (" 2 ", 2.0), ("nan", 0.0)],
)  # fmt: skip
def test_tracking_metric(value, expected):
    got = qs._tracking_metric(value)
    assert (type(got), got) == (float, expected)
    fallback = object()
    assert qs._tracking_metric(math.nan, default=fallback) is fallback
    assert qs._tracking_metric("x", fallback) is fallback


def test_is_mi_score():
    class Real(float):
        pass

    for score in (0, 0.25, -3, math.inf, -math.inf, 10**300):
        assert qs._is_mi_score(score) is True
    for other in (True, False, "1", None, math.nan, 10**400, Real(1.0), 1j, [], 2.0 + 0j):
        assert qs._is_mi_score(other) is False


def test_tracking_stats():
    config = {"evaluation_pnl_columns": ["a"]}
    liquidity = {"x": 1}
    source = SimpleNamespace(
        avg_turnover="0.5", delta_exposure=None, max_weight=math.inf,
        liquidity_metrics=liquidity, custom_stats={},
    )  # fmt: skip
    columns = {"a_sharpe": math.nan, "b_sharpe": 3.0, "a_drawdown": 2, "a_quality_score": "x"}
    stats = qs._build_tracking_stats(source, columns, config)
    assert stats == BacktestStats(0.0, 0.0, 0.5, 2.0, 0.0, 0.0, 0.0, 0.0, {"x": 1}, {})
    liquidity["y"] = 2
    assert stats.liquidity_metrics == {"x": 1}
    source.liquidity_metrics = None
    assert qs._build_tracking_stats(source, None, config).liquidity_metrics == {}
    text = "missing required runtime data-shape field: evaluation_pnl_columns"
    for empty in ({}, {"evaluation_pnl_columns": []}):
        with raises_exactly(SdkRuntimeNotReadyError, text):
            qs._build_tracking_stats(None, None, empty)
    for name in list(vars(source)):
        short = SimpleNamespace(**{k: v for k, v in vars(source).items() if k != name})
        with pytest.raises(AttributeError, match=name):
            qs._build_tracking_stats(short, columns, config)

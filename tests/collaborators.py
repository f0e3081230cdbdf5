"""Scripted stand-ins for everything that a simulation calls, and helpers shared by the tests."""

import re
import threading
from contextlib import contextmanager
from functools import partial
from pathlib import Path
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from quillstone.function_store import FunctionStore
from quillstone.functions._typed_shapes import FunctionGraphNode

PATIENCE = 20.0
SEED = bytes(range(60))
VOCABULARY_KEYS = ("era_id", "rotations", "filtrations", "reductions", "features", "metadata")


def node(kind="feature", *children):
    return FunctionGraphNode(kind, f"{kind}_name", children)


def set_children(parent, children):
    """Give a node children that its constructor might refuse, such as itself."""
    object.__setattr__(parent, "children", children)
    return parent


def chain(depth, leaf):
    """A graph of `depth` rotations above `leaf`, torn down without recursion by the caller."""
    graph = leaf
    for _ in range(depth):
        graph = node("rotation", graph)
    return graph


def dismantle(graph):
    """Take a deep graph apart from the top, so that its destruction does not recurse."""
    while graph is not None and graph.children:
        below = graph.children[0]
        graph.children = ()
        graph = below


def vocabulary(**sections):
    return {**{key: {} for key in VOCABULARY_KEYS}, "era_id": 7, **sections}


@contextmanager
def raises_exactly(kind, text):
    """The block raises an exception of exactly this type and text."""
    with pytest.raises(kind, match=f"^{re.escape(text)}$") as caught:
        yield caught
    assert type(caught.value) is kind


class Blocker:
    """A scripted answer that waits until the test lets it go on, and may then raise."""

    def __init__(self, error=None):
        self.error = error
        self.entered = threading.Event()
        self.leave = threading.Event()

    def __call__(self, *args, **kwargs):
        self.entered.set()
        assert self.leave.wait(PATIENCE), "nobody released the blocked collaborator"
        if self.error is not None:
            raise self.error

    def wait_until_entered(self):
        assert self.entered.wait(PATIENCE), "the blocked collaborator was never called"


class Script:
    """Records every call in order and answers as the test says.

    `intrusions` maps the number of a call to an action that runs before it is answered.
    """

    def __init__(self):
        self.calls = []
        self.intrusions = {}
        self._answers = {}

    def answer(self, name, default, *args, **kwargs):
        self.calls.append((name, args, kwargs))
        intrusion = self.intrusions.get(len(self.calls) - 1)
        if intrusion is not None:
            intrusion()
        action = self._answers.get(name)
        if action is None:
            return default
        if isinstance(action, BaseException):
            raise action
        answer = action(*args, **kwargs)
        return default if isinstance(action, Blocker) else answer

    def on(self, name, action):
        """Let a call run `action`, or raise it when it is an exception."""
        self._answers[name] = action

    def block(self, name, error=None):
        blocker = Blocker(error)
        self.on(name, blocker)
        return blocker

    def names(self):
        return [name for name, _, _ in self.calls]

    def arguments(self, name, which=-1):
        return [(args, kwargs) for called, args, kwargs in self.calls if called == name][which]


class Scripted:
    """An object with the scripted methods and the plain attributes given, and no others."""

    def __init__(self, script, methods=(), **attributes):
        for name, default in dict(methods).items():
            setattr(self, name, partial(script.answer, name, default))
        vars(self).update(attributes)


class Kit:
    """One complete set of collaborators, wired into the module by `wire`.

    `pieces` are the arguments of `init_simulate_signal`; a test changes them, `era`, `found`
    (the found-signal ids of the backtest) or the script before it starts a simulation.
    """

    def __init__(self, data_dir, flavour="backtest", orchestrator=None):
        (Path(data_dir) / "shuffle_seed.enc").write_bytes(SEED)
        self.script = script = Script()
        self.failing_gates = set()
        self.stats = SimpleNamespace(
            avg_turnover=0.25,
            delta_exposure=0.5,
            max_weight=0.125,
            liquidity_metrics={"adv": 2.0},
            custom_stats=None,
        )
        self.tested = SimpleNamespace(
            stats=self.stats,
            per_column_stats={"net_sharpe": 1.5, "net_returns": 0.1, "gross_sharpe": 9.0},
            factor_pnl="factor pnl",
            portfolio_returns="returns",
            processed_weights="processed",
            found_signal_ids=[],
            structural_failed=False,
        )
        self.evaluated = SimpleNamespace(weights="weights", per_pool_weights=None)
        self.signal_pool = {
            "pool_id": "p1",
            "name": "alpha",
            "allowed_named_universes": ["top"],
            "universes": {3: {"signal_is_thresholds": {"sharpe": 1.0}}},
            "is_correlation_threshold": 0.7,
            "is_pnl_mi_threshold": 0.1,
        }
        self.strategy_pool = {
            "pool_id": "s1",
            "name": "blend",
            "signal_pool_name": "p1",
            "universes": {3: {"strategy_is_thresholds": {"sharpe": 2.0}}},
            "is_correlation_threshold": 0.6,
            "strategy_is_pnl_mi_threshold": 0.2,
        }
        self.era = {
            "era_id": 7,
            "evaluation_pnl_columns": ["net", "gross"],
            "universe_rules": {"top": {"rule_id": 3}},
            "transform_pipeline": [],
            "column_labels": ["net", "gross"],
            "signal_pools": [self.signal_pool],
            "strategy_pools": [self.strategy_pool],
        }
        engine = {flavour: self.tested}
        if orchestrator is None:
            engine = {"evaluate_expression": self.evaluated, **engine}
        self.backtester = Scripted(
            script,
            {"initialize_era_vault": None, "init_reconstruction": None, **engine},
            evaluator=SimpleNamespace(evaluate=partial(script.answer, "inner_evaluate", None)),
            search_plan_factory=lambda: "own plan",
        )
        self.sync_manager = Scripted(
            script,
            {
                "acquire": None,
                "release": None,
                "request_for_sync": "synced",
                "get_manifest": {"era_id": 7},
            },
            _data_dir=str(data_dir),
            bytes_downloaded=0,
            total_bytes=0,
            feature_dir="features",
        )
        self.vault = Scripted(script, {"init_if_needed": None, "universe_mask": "mask"})
        records = {"record_signal_evaluation": None, "record_strategy_evaluation": None}
        self.pieces = {
            "auth": Scripted(script, {"get_wallet_secret": "secret"}),
            "sync_manager": self.sync_manager,
            "vault": self.vault,
            "backtester": self.backtester,
            "search_tracker": Scripted(script, records),
            "era_thread": Scripted(script, {"get_current_era_id": 7}),
            "graph_validator": Scripted(script, {"validate": None}),
            "era_config": self.era,
            "load_vocabulary": self.function("load_vocabulary", vocabulary()),
            "vocabulary": FunctionStore(),
            "useful_signals": ["u1"],
            "useful_signal_pool": {"u1": "array"},
            "useful_signal_metadata": {"u1": {"id": "u1", "signal_pool_id": "p1"}},
            "found_signal_pool": {"f1": "entry 1", "f2": "entry 2"},
            "load_found_signal_pnl": self.function("load_found_signal_pnl", "pnl"),
            "set_phase": self.function("set_phase"),
            "correlate_per_pool": self.function("correlate_per_pool", 0.3),
            "compute_mi_per_pool": self.function("compute_mi_per_pool", (0.5, "detail")),
            "compute_search_plan": self.function("compute_search_plan", "plan"),
            "signal_dir": "signals",
        }
        batch = Scripted(script, {"evaluate": self.evaluated})
        if orchestrator == "instance":
            self.pieces["batch_orchestrator"] = batch
        elif orchestrator == "class":
            self.pieces["BatchOrchestrator_cls"] = self.function("BatchOrchestrator", batch)

    def function(self, name, default=None):
        return partial(self.script.answer, name, default)

    def wire(self):
        qs.init_simulate_signal(**self.pieces)
        qs.evaluate_threshold_gates = self._gate
        return self

    def _gate(self, *, metrics, threshold_set, pool_thresholds=None):
        name = next((key for key in ("is_correlation", "is_pnl_mi") if key in metrics), "metrics")
        arguments = {"metrics": metrics, "threshold_set": threshold_set}
        if pool_thresholds is not None:
            arguments["pool_thresholds"] = pool_thresholds
        verdict = SimpleNamespace(passed=name not in self.failing_gates)
        return self.script.answer(f"gate:{name}", verdict, **arguments)

    def start(self, kind="signal", graph=None, **options):
        self.wire()
        if kind == "signal":
            graph = node() if graph is None else graph
            return qs.simulate_signal(graph, "top", signal_pool_id="p1", **options)
        graph = node("filtration", node()) if graph is None else graph
        return qs.simulate_strategy(graph, "top", strategy_pool_id="s1", **options)

    def run(self, kind="signal", graph=None, **options):
        return self.start(kind, graph, **options).result()

    def failure(self, kind="signal", graph=None, **options):
        """The error that a run ends with."""
        handle = self.start(kind, graph, **options)
        error = ended(handle)._error
        assert error is not None, "the run succeeded"
        with pytest.raises(type(error)) as caught:
            handle.result()
        assert caught.value is error
        return error


def ended(handle):
    """Wait for the pipeline to end, without retrieving its result."""
    handle._thread.join(PATIENCE)
    assert not handle._thread.is_alive()
    return handle

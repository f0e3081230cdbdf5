"""The backtester that simulations share."""

from __future__ import annotations

import os
import threading
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np

from quillstone.function_store import FunctionStore, store_from_vocabulary
from quillstone.functions._typed_shapes import FunctionGraphNode, StageData, post_order
from quillstone.obfuscation import load_vocabulary
from quillstone.simulator_engine.expression_evaluator import EvaluationOutput, ExpressionEvaluator
from quillstone.simulator_engine.found_signals import FoundSignalStore
from quillstone.simulator_engine.pnl_engine import PnlEngine
from quillstone.simulator_engine.pnl_statistics import (
    PNL_COLUMNS,
    PnlTable,
    WeightStats,
    column_stats,
    weight_stats,
)
from quillstone.simulator_engine.structure import StructuralLimits, structural_faults

__all__ = ["PNL_COLUMNS", "BacktestOutput", "CachingBacktester", "LocalBacktester"]

SEED_BYTES = 60
_CACHED_EVALUATIONS = 64


@dataclass
class BacktestOutput:
    """Outcome of one backtest.

    Attributes:
        stats: Statistics of the weights.
        factor_pnl: Daily PnL, net and gross.
        per_column_stats: Statistics of each PnL column, see `column_stats`; they start on the
            first day that the book can earn.
        found_signal_ids: Signals found so far that this one has to differ from.
        structural_failed: Whether the weights are no tradable book.
        structural_faults: Why, in words.
        portfolio_returns: Daily net PnL, float64 [days], when asked for.
        processed_weights: The weights priced, float64 [days x tickers], when asked for.
    """

    stats: WeightStats
    factor_pnl: PnlTable
    per_column_stats: dict[str, float]
    found_signal_ids: list[str]
    structural_failed: bool
    structural_faults: tuple[str, ...] = ()
    portfolio_returns: np.ndarray | None = None
    processed_weights: np.ndarray | None = None


@dataclass(frozen=True)
class RunContext:
    """What a thread has evaluated: a backtest is handed weights alone and has to know the rest."""

    graph_hash: str
    expression_type: str
    named_universe: str
    metaparameters: dict[str, Any]


class LocalBacktester:
    """Backtests weights on the synced prices; one is shared by all simulations of a process.

    A simulation runs on a thread of its own. What belongs to one run (`evaluator`,
    `search_plan_factory`, the last weights and the last output) is therefore kept per thread,
    so that runs which swap these attributes at the same time do not meet.

    Args:
        data_dir: The synced data.
        signal_dir: Files of accepted signals, by default ``data_dir/signals``.
        found_signals: Store of found signals; one over ``signal_dir`` by default.
        era_config: Era configuration: "transform_pipeline" for `evaluate_expression`, "cost_bps".
        cost_bps: Cost of trading in basis points, where the era configuration gives none.
        named_universe: Universe of runs that name none.
        raw_vocabulary: The vocabulary for `evaluate_expression`, by default the synced one.
        useful_signals: Ids of the signals that `evaluate_expression` lets strategies draw on, or
            a callable that gives them.
        limits: Limits of the structural check.
    """

    def __init__(
        self,
        data_dir: str | os.PathLike[str],
        *,
        signal_dir: str | os.PathLike[str] | None = None,
        found_signals: FoundSignalStore | None = None,
        era_config: Mapping[str, Any] | None = None,
        cost_bps: float = 5.0,
        named_universe: str | None = None,
        raw_vocabulary: Mapping[str, Any] | None = None,
        useful_signals: Iterable[str] | Callable[[], Iterable[str]] = (),
        limits: StructuralLimits | None = None,
    ) -> None:
        self.data_dir = Path(data_dir)
        self.signal_dir = Path(signal_dir) if signal_dir else self.data_dir / "signals"
        self.era_config = era_config
        self.cost_bps = cost_bps
        self.named_universe = named_universe
        self.raw_vocabulary = raw_vocabulary
        self.useful_signals = useful_signals
        self.limits = limits or StructuralLimits()
        self.reconstructed_era: int | None = None
        self._engine: PnlEngine | None = None
        self._default_evaluator = ExpressionEvaluator()
        self._thread = threading.local()
        self.found_signals = found_signals or FoundSignalStore(self.signal_dir)
        self.found_signals.last_output = self.last_output

    @property
    def evaluator(self) -> Any:
        """Evaluates graphs for this thread."""
        return getattr(self._thread, "evaluator", self._default_evaluator)

    @evaluator.setter
    def evaluator(self, value: Any) -> None:
        self._thread.evaluator = value

    @property
    def search_plan_factory(self) -> Callable[..., Any] | None:
        """Gives this thread's search plan; None lets the evaluator plan for itself."""
        return getattr(self._thread, "search_plan_factory", None)

    @search_plan_factory.setter
    def search_plan_factory(self, value: Callable[..., Any] | None) -> None:
        self._thread.search_plan_factory = value

    @property
    def _last_weights(self) -> Any:
        return getattr(self._thread, "weights", None)

    @_last_weights.setter
    def _last_weights(self, value: Any) -> None:
        self._thread.weights = value

    @property
    def last_eval_result(self) -> EvaluationOutput | None:
        """What this thread's last `evaluate_expression` returned."""
        return getattr(self._thread, "evaluation", None)

    @property
    def raw_backtester(self) -> PnlEngine:
        """The engine over the market data; setting None drops the data read so far."""
        engine = self._engine
        if engine is None:
            engine = self._engine = PnlEngine(self.data_dir)
        return engine

    @raw_backtester.setter
    def raw_backtester(self, value: PnlEngine | None) -> None:
        self._engine = value

    def last_output(self) -> BacktestOutput | None:
        """The calling thread's last backtest, None before its first."""
        return getattr(self._thread, "output", None)

    def feature_dir(self, named_universe: str | None = None) -> Path:
        """Directory of a universe's features."""
        return self.data_dir / self._universe(named_universe) / "features"

    def init_reconstruction(
        self, *, shuffle_blob: bytes, wallet_secret: bytes | str, era_id: int
    ) -> None:
        """Open the market data of an era; `backtest` with ``use_vault`` requires it."""
        if not isinstance(shuffle_blob, (bytes, bytearray)) or len(shuffle_blob) != SEED_BYTES:
            raise ValueError(f"the reconstruction seed must be {SEED_BYTES} bytes")
        if not wallet_secret:
            raise ValueError("a wallet secret is required to open the market data")
        self.reconstructed_era = era_id

    def note_run(
        self,
        graph: FunctionGraphNode,
        expression_type: str,
        named_universe: str | None,
        *,
        metaparameters: Mapping[str, Any] | None = None,
    ) -> None:
        """Note what the calling thread has evaluated; the backtest that follows is of it."""
        self._thread.output = None
        self._thread.weights = None
        self._thread.context = self._context(graph, expression_type, named_universe, metaparameters)

    def evaluate_expression(
        self,
        graph: FunctionGraphNode,
        metaparameters: Mapping[str, Any] | None = None,
        named_universe: str | None = None,
    ) -> EvaluationOutput:
        """Evaluate a graph to weights, float64 [days x tickers], with the era's stages."""
        expression_type = _expression_type(graph)
        keywords: dict[str, Any] = {}
        if (plan_factory := self.search_plan_factory) is not None:
            keywords["search_plan"] = plan_factory(graph, expression_type)
        ids = self.useful_signals() if callable(self.useful_signals) else self.useful_signals
        evaluation = self.evaluator.evaluate(
            graph=graph,
            expression_type=expression_type,
            registry=self._registry(),
            useful_signals=ids,
            metaparameters=metaparameters,
            transform_pipeline=(self.era_config or {}).get("transform_pipeline"),
            stage_data=StageData(),
            feature_dir=self.feature_dir(named_universe),
            signal_dir=self.signal_dir,
            **keywords,
        )
        self.note_run(graph, expression_type, named_universe, metaparameters=metaparameters)
        self._thread.evaluation = evaluation
        return evaluation

    def backtest(
        self,
        *,
        weights: np.ndarray,
        era_config: Mapping[str, Any] | None = None,
        universe: np.ndarray | None = None,
        return_series: bool = False,
        return_weights: bool = False,
        use_vault: bool = True,
    ) -> BacktestOutput:
        """Price weights [days x tickers] on the universe that this thread last evaluated for.

        ``universe`` is a boolean mask of the same shape: there is no position outside of it.
        ``era_config`` may give "cost_bps". With ``use_vault`` the market data have to have been
        opened by `init_reconstruction`.
        """
        if use_vault and self.reconstructed_era is None:
            raise RuntimeError("market data are closed: call init_reconstruction() first")
        if weights is None:
            raise ValueError("weights are required for a backtest")
        context: RunContext | None = getattr(self._thread, "context", None)
        named_universe = context.named_universe if context else self._universe(None)
        engine = self.raw_backtester
        market = engine.market(named_universe)
        weights = np.asarray(weights, dtype=np.float64)
        if weights.shape != market.returns.shape:
            raise ValueError(
                f"weights have shape {weights.shape}, "
                f"universe {named_universe!r} has {market.returns.shape} (days, tickers)"
            )
        faults = structural_faults(weights, self.limits)
        held = np.where(np.isfinite(weights), weights, 0.0)
        if universe is not None:
            held = np.where(universe, held, 0.0)
        pnl = engine.pnl(held, market, self._cost_bps(era_config))
        exposed = np.flatnonzero(np.any(held != 0.0, axis=1))
        first_earning_day = int(exposed[0]) + 1 if exposed.size else len(held)
        output = BacktestOutput(
            stats=weight_stats(held, pnl["pnl_net"]),
            factor_pnl=pnl,
            per_column_stats=column_stats(pnl, since=first_earning_day),
            found_signal_ids=self.found_signals.rivals(context) if context else [],
            structural_failed=bool(faults),
            structural_faults=faults,
            portfolio_returns=pnl["pnl_net"].copy() if return_series else None,
            processed_weights=held if return_weights else None,
        )
        self._thread.output = output
        return output

    def _context(
        self,
        graph: FunctionGraphNode,
        expression_type: str,
        named_universe: str | None,
        metaparameters: Mapping[str, Any] | None,
    ) -> RunContext:
        universe = self._universe(named_universe)
        return RunContext(graph.graph_hash, expression_type, universe, dict(metaparameters or {}))

    def _universe(self, named_universe: str | None) -> str:
        named_universe = named_universe or self.named_universe
        if not named_universe:
            raise ValueError("named_universe is required: the backtester has no default one")
        return named_universe

    def _cost_bps(self, era_config: Mapping[str, Any] | None) -> float:
        for config in (era_config, self.era_config):
            value = config.get("cost_bps") if config else None
            if value is not None:
                return float(value)
        return self.cost_bps

    def _registry(self) -> FunctionStore:
        return store_from_vocabulary(self.raw_vocabulary or load_vocabulary(self.data_dir))


class CachingBacktester(LocalBacktester):
    """A backtester that takes graphs and keeps the weights of evaluations not yet backtested."""

    def __init__(self, data_dir: str | os.PathLike[str], **options: Any) -> None:
        super().__init__(data_dir, **options)
        self._cache: dict[Any, EvaluationOutput] = {}
        self._cache_lock = threading.Lock()

    def evaluate_expression(
        self,
        graph: FunctionGraphNode,
        metaparameters: Mapping[str, Any] | None = None,
        named_universe: str | None = None,
    ) -> EvaluationOutput:
        """Evaluate a graph and keep the outcome for `run_backtest`."""
        evaluation = super().evaluate_expression(graph, metaparameters, named_universe)
        key = self._cache_key(graph, metaparameters=metaparameters, named_universe=named_universe)
        with self._cache_lock:
            self._cache[key] = evaluation
            while len(self._cache) > _CACHED_EVALUATIONS:
                del self._cache[next(iter(self._cache))]
        return evaluation

    def run_backtest(
        self,
        graph: FunctionGraphNode,
        metaparameters: Mapping[str, Any] | None = None,
        named_universe: str | None = None,
        return_series: bool = False,
        return_weights: bool = False,
    ) -> BacktestOutput:
        """Backtest a graph: weights installed for it on this thread, else kept, else evaluated."""
        run = self._context(graph, _expression_type(graph), named_universe, metaparameters)
        key = self._cache_key(graph, metaparameters=metaparameters, named_universe=named_universe)
        with self._cache_lock:
            kept = self._cache.pop(key, None)
        weights = self._last_weights if getattr(self._thread, "context", None) == run else None
        if weights is None:
            if kept is None:
                kept = super().evaluate_expression(graph, metaparameters, named_universe)
            weights = kept.weights
        self._thread.context = run
        return self.backtest(
            weights=weights, return_series=return_series, return_weights=return_weights
        )

    def _cache_key(
        self,
        graph: FunctionGraphNode,
        *,
        metaparameters: Mapping[str, Any] | None,
        named_universe: str | None,
    ) -> tuple[str, str, str]:
        options = repr(sorted((metaparameters or {}).items(), key=repr))
        return graph.graph_hash, options, self._universe(named_universe)


def _expression_type(graph: FunctionGraphNode) -> str:
    strategy = any(node.type == "filtration" for node in post_order(graph))
    return "STRATEGY" if strategy else "SIGNAL"

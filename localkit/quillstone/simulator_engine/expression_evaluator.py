"""Computes a typed graph with NumPy: features in, weights out."""

from __future__ import annotations

import os
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import numpy as np

from quillstone.function_store import FunctionEntry, FunctionStore, check_params
from quillstone.functions._typed_shapes import FunctionGraphNode, StageData
from quillstone.simulator_engine.search_plan import PlanStep, SearchPlan, compute_search_plan
from quillstone.simulator_engine.signal_files import UsefulSignal
from quillstone.simulator_engine.transform_stages import apply_stages

__all__ = ["EvaluationOutput", "ExpressionEvaluator", "FunctionGraphNode", "StageData"]


@dataclass
class EvaluationOutput:
    """Weights of one expression.

    ``weights`` is float64 [days x tickers], zero where there is no position; row t is known at
    day t's close. ``per_pool_weights`` stays None: this engine evaluates one pool at a time.
    """

    weights: np.ndarray
    per_pool_weights: Mapping[str, np.ndarray] | None = None
    column_labels: Any = None


class ExpressionEvaluator:
    """Evaluates graphs; keeps nothing between calls, so threads may share one."""

    def evaluate(
        self,
        *,
        graph: FunctionGraphNode,
        expression_type: str,
        registry: FunctionStore,
        feature_dir: str | os.PathLike[str],
        signal_dir: str | os.PathLike[str] | None = None,
        useful_signals: Iterable[str] | None = None,
        universe: np.ndarray | None = None,
        metaparameters: Mapping[str, Any] | None = None,
        transform_pipeline: Iterable[Any] | None = None,
        stage_data: StageData | None = None,
        column_labels: Any = None,
        search_plan: SearchPlan | None = None,
        **_unused: Any,
    ) -> EvaluationOutput:
        """Evaluate a graph and run it through the transform stages.

        ``universe`` is a boolean mask [days x tickers]; outside of it features are missing and
        weights zero. ``useful_signals`` are the ids of the signals that a strategy may choose
        from, their files lie in ``signal_dir``. A plan made for another graph is not used.
        """
        plan = search_plan
        if not isinstance(plan, SearchPlan) or plan.graph_hash != graph.graph_hash:
            plan = compute_search_plan(graph, expression_type)
        signals = [UsefulSignal(str(ref), signal_dir or "") for ref in useful_signals or ()]
        run = _Run(Path(feature_dir), registry, signals, universe)
        with np.errstate(all="ignore"):
            values = run.compute(plan)
            values = apply_stages(values, transform_pipeline, metaparameters, registry, stage_data)
        inside = np.isfinite(values) if universe is None else np.isfinite(values) & universe
        weights = np.ascontiguousarray(np.where(inside, values, 0.0))
        return EvaluationOutput(weights, column_labels=column_labels)


@dataclass
class _Run:
    """One evaluation under way."""

    feature_dir: Path
    registry: FunctionStore
    signals: list[UsefulSignal]
    universe: np.ndarray | None

    def compute(self, plan: SearchPlan) -> np.ndarray:
        values: list[Any] = []
        uses = list(plan.uses)
        for step in plan.steps:
            operands = [values[index] for index in step.operands]
            values.append(self._step(step, operands))
            for index in step.operands:
                uses[index] -= 1
                if not uses[index]:
                    values[index] = None
        result = values[-1]
        if not isinstance(result, np.ndarray):
            root = plan.steps[-1].node
            raise ValueError(f"the graph ends in {root.type} {root.name!r}, which gives no weights")
        return result

    def _step(self, step: PlanStep, operands: list[Any]) -> Any:
        node = step.node
        if node.type == "feature":
            return self._feature(node.name)
        function = self._function(node)
        if node.type == "filtration":
            return self._choose(node, function, operands)
        if node.type == "reduction":
            return self._combine(node, function, operands)
        result = np.asarray(function(*operands), dtype=np.float64)
        if result.shape != operands[0].shape:
            raise ValueError(
                f"rotation {node.name!r} turned shape {operands[0].shape} into {result.shape}"
            )
        return result

    def _feature(self, name: str) -> np.ndarray:
        path = self.feature_dir / f"{name}.npy"
        if path.parent != self.feature_dir or not path.is_file():
            raise ValueError(f"feature {name!r} has no data in {self.feature_dir}")
        values = np.load(path, mmap_mode="r")
        if self.universe is None:
            return np.asarray(values, dtype=np.float64)
        if values.shape != self.universe.shape:
            raise ValueError(
                f"feature {name!r} has shape {values.shape}, the universe has {self.universe.shape}"
            )
        return np.where(self.universe, values, np.nan)

    def _function(self, node: FunctionGraphNode) -> Callable[..., Any]:
        entry: FunctionEntry | None = self.registry.get(node.name)
        if entry is None or entry.function_type != node.type or entry.factory is None:
            raise ValueError(f"{node.type} {node.name!r} is not in the vocabulary")
        return entry.factory(**check_params(entry, node.params))

    def _choose(self, node: FunctionGraphNode, function: Any, operands: list[Any]) -> list[Any]:
        candidates = operands[0] if operands else self.signals
        chosen = function(candidates)
        if not chosen:
            raise ValueError(
                f"filtration {node.name!r} keeps none of {len(candidates)} useful signals"
            )
        return chosen

    def _combine(self, node: FunctionGraphNode, function: Any, operands: list[Any]) -> np.ndarray:
        signals: list[UsefulSignal] = operands[0]
        weights = [signal.weights for signal in signals]
        for signal, array in zip(signals, weights, strict=True):
            if array.shape != weights[0].shape or len(signal.net_pnl) != len(array):
                raise ValueError(
                    f"useful signal {signal.signal_id!r} covers other days or tickers than "
                    f"{signals[0].signal_id!r}"
                )
            if self.universe is not None and array.shape != self.universe.shape:
                raise ValueError(
                    f"useful signal {signal.signal_id!r} has weights of shape {array.shape}, "
                    f"the universe has {self.universe.shape}"
                )
        pnl = np.column_stack([signal.net_pnl for signal in signals])
        return function(weights, pnl)

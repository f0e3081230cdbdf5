"""Runs one expression's evaluation for the pipeline."""

from __future__ import annotations

import os
from collections.abc import Iterable, Mapping
from typing import Any

import numpy as np

from quillstone.function_store import FunctionStore
from quillstone.functions._typed_shapes import FunctionGraphNode, StageData
from quillstone.simulator_engine.expression_evaluator import EvaluationOutput, ExpressionEvaluator
from quillstone.simulator_engine.search_plan import SearchPlan, compute_search_plan

__all__ = ["BatchOrchestrator", "FunctionGraphNode", "SearchPlan", "compute_search_plan"]


class BatchOrchestrator:
    """Settles where an evaluation reads its data and hands it to the backtester's evaluator.

    What a call of `evaluate` leaves out is taken from the constructor, and directories that
    neither names from the backtester. Holds no state of a run: threads may share one.
    """

    def __init__(
        self,
        search_plan: SearchPlan | None = None,
        feature_dir: str | os.PathLike[str] | None = None,
        signal_dir: str | os.PathLike[str] | None = None,
        manifest: Any = None,
        backtester: Any = None,
        named_universe: str | None = None,
    ) -> None:
        self.search_plan = search_plan
        self.feature_dir = feature_dir
        self.signal_dir = signal_dir
        self.manifest = manifest
        self.backtester = backtester
        self.named_universe = named_universe

    def evaluate(
        self,
        *,
        graph: FunctionGraphNode,
        expression_type: str,
        registry: FunctionStore,
        useful_signals: Iterable[str] | None = None,
        universe: np.ndarray | None = None,
        metaparameters: Mapping[str, Any] | None = None,
        transform_pipeline: Iterable[Any] | None = None,
        stage_data: StageData | None = None,
        column_labels: Any = None,
        signal_universe_rule_ids: Mapping[str, int] | None = None,
        search_plan: SearchPlan | None = None,
        feature_dir: str | os.PathLike[str] | None = None,
        signal_dir: str | os.PathLike[str] | None = None,
        manifest: Any = None,
        backtester: Any = None,
    ) -> EvaluationOutput:
        """Evaluate a graph to weights, float64 [days x tickers].

        A backtester with `note_run` learns what its thread has evaluated, so that the backtest
        that follows uses the same universe and compares like with like.
        """
        backtester = self.backtester if backtester is None else backtester
        feature_dir = feature_dir or self.feature_dir
        if not feature_dir and hasattr(backtester, "feature_dir"):
            feature_dir = backtester.feature_dir(self.named_universe)
        if not feature_dir:
            raise ValueError("feature_dir is required to evaluate an expression")
        evaluator = getattr(backtester, "evaluator", None) or ExpressionEvaluator()
        evaluation = evaluator.evaluate(
            graph=graph,
            expression_type=expression_type,
            registry=registry,
            useful_signals=useful_signals,
            universe=universe,
            metaparameters=metaparameters,
            transform_pipeline=transform_pipeline,
            stage_data=stage_data,
            column_labels=column_labels,
            signal_universe_rule_ids=signal_universe_rule_ids,
            search_plan=search_plan or self.search_plan,
            feature_dir=feature_dir,
            signal_dir=signal_dir or self.signal_dir or getattr(backtester, "signal_dir", None),
            manifest=self.manifest if manifest is None else manifest,
        )
        if hasattr(backtester, "note_run"):
            backtester.note_run(
                graph, expression_type, self.named_universe, metaparameters=metaparameters
            )
        return evaluation

"""Filtrations: which of the useful signals a strategy draws on.

They judge a signal by the statistics recorded when it was accepted, which cover its whole
history: a strategy's backtest is in-sample with regard to its choice of signals.
"""

from __future__ import annotations

import math
from collections.abc import Sequence
from dataclasses import dataclass
from typing import Any, Protocol

from quillstone.functions._base import CatalogFunction, number_rule


class SignalRecord(Protocol):
    """A useful signal as filtrations and reductions see it."""

    signal_id: str
    metadata: dict[str, Any]


class Filtration(CatalogFunction):
    """Keeps some of the signals, in their order; signals without the statistic are left out."""

    TYPE, FAMILY = "filtration", "selection"


def statistic(signal: SignalRecord, name: str) -> float:
    """A recorded statistic, NaN where there is none."""
    value = signal.metadata.get(name)
    return float(value) if isinstance(value, (int, float)) else math.nan


@dataclass(frozen=True)
class All(Filtration):
    """Every useful signal."""

    NAME, SUBFAMILY = "all", "everything"

    def __call__(self, signals: Sequence[SignalRecord]) -> list[SignalRecord]:
        return list(signals)


@dataclass(frozen=True)
class MinSharpe(Filtration):
    """Signals with an annualised Sharpe ratio of at least ``at_least``."""

    NAME, SUBFAMILY = "min_sharpe", "threshold"
    PARAMS = {"at_least": number_rule(0.5, -10.0, 10.0)}
    at_least: float = 0.5

    def __call__(self, signals: Sequence[SignalRecord]) -> list[SignalRecord]:
        return [s for s in signals if statistic(s, "sharpe") >= self.at_least]


@dataclass(frozen=True)
class MaxTurnover(Filtration):
    """Signals with a mean daily turnover of at most ``at_most`` of their gross exposure."""

    NAME, SUBFAMILY = "max_turnover", "threshold"
    PARAMS = {"at_most": number_rule(0.5, 0.0, 2.0)}
    at_most: float = 0.5

    def __call__(self, signals: Sequence[SignalRecord]) -> list[SignalRecord]:
        return [s for s in signals if statistic(s, "turnover") <= self.at_most]


@dataclass(frozen=True)
class TopSharpe(Filtration):
    """The ``count`` signals with the highest Sharpe ratios."""

    NAME, SUBFAMILY = "top_sharpe", "ranking"
    PARAMS = {"count": {"type": "int", "default": 5, "min": 1, "max": 1000}}
    count: int = 5

    def __call__(self, signals: Sequence[SignalRecord]) -> list[SignalRecord]:
        known = [s for s in signals if not math.isnan(statistic(s, "sharpe"))]
        best = sorted(known, key=lambda s: statistic(s, "sharpe"), reverse=True)[: self.count]
        kept = {id(signal) for signal in best}
        return [signal for signal in signals if id(signal) in kept]


FUNCTIONS = (All, MinSharpe, MaxTurnover, TopSharpe)

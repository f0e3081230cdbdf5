"""Rotations along each ticker's own past."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from quillstone.functions import _rolling as rolling
from quillstone.functions._base import Rotation, days_rule, number_rule
from quillstone.functions.cross_section import ratio


@dataclass(frozen=True)
class Delay(Rotation):
    """The value ``days`` trading days ago."""

    NAME, FAMILY, SUBFAMILY = "delay", "time_series", "lag"
    STATEFUL = True
    PARAMS = {"days": days_rule(1)}
    days: int = 1

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.shift(x, self.days)


@dataclass(frozen=True)
class Delta(Rotation):
    """Change over the last ``days`` trading days, in the unit of the operand."""

    NAME, FAMILY, SUBFAMILY = "delta", "time_series", "lag"
    STATEFUL = True
    PARAMS = {"days": days_rule(5)}
    days: int = 5

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return x - rolling.shift(x, self.days)


@dataclass(frozen=True)
class MovingAverage(Rotation):
    """Mean of the last ``window`` days; NaN unless all of them are defined."""

    NAME, FAMILY, SUBFAMILY = "moving_average", "time_series", "smooth"
    STATEFUL = True
    PARAMS = {"window": days_rule(10)}
    window: int = 10

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.trailing_mean(x, self.window)


@dataclass(frozen=True)
class LinearDecay(Rotation):
    """Mean of the last ``window`` days, weighted from ``window`` for today down to 1."""

    NAME, FAMILY, SUBFAMILY = "linear_decay", "time_series", "smooth"
    STATEFUL = True
    PARAMS = {"window": days_rule(10)}
    window: int = 10

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.linear_decay(x, self.window)


@dataclass(frozen=True)
class ExponentialDecay(Rotation):
    """Mean of all days so far, weights halving every ``half_life`` days; skips missing days."""

    NAME, FAMILY, SUBFAMILY = "exponential_decay", "time_series", "smooth"
    STATEFUL = True
    PARAMS = {"half_life": number_rule(10.0, 0.1, 756.0)}
    half_life: float = 10.0

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.exponential_decay(x, self.half_life)


@dataclass(frozen=True)
class Volatility(Rotation):
    """Sample standard deviation of the last ``window`` days, in the unit of the operand."""

    NAME, FAMILY, SUBFAMILY = "volatility", "time_series", "spread"
    STATEFUL = True
    PARAMS = {"window": days_rule(20, least=2)}
    window: int = 20

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.trailing_mean_std(x, self.window)[1]


@dataclass(frozen=True)
class TimeSeriesZScore(Rotation):
    """Distance from the mean of the last ``window`` days in their standard deviations."""

    NAME, FAMILY, SUBFAMILY = "ts_zscore", "time_series", "standardise"
    STATEFUL = True
    PARAMS = {"window": days_rule(60, least=2)}
    window: int = 60

    def __call__(self, x: np.ndarray) -> np.ndarray:
        mean, std = rolling.trailing_mean_std(x, self.window)
        return ratio(x - mean, std)


@dataclass(frozen=True)
class TrailingMax(Rotation):
    """Greatest value of the last ``window`` days."""

    NAME, FAMILY, SUBFAMILY = "ts_max", "time_series", "range"
    STATEFUL = True
    PARAMS = {"window": days_rule(60)}
    window: int = 60

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.trailing_max(x, self.window)


@dataclass(frozen=True)
class TrailingMin(Rotation):
    """Least value of the last ``window`` days."""

    NAME, FAMILY, SUBFAMILY = "ts_min", "time_series", "range"
    STATEFUL = True
    PARAMS = {"window": days_rule(60)}
    window: int = 60

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return rolling.trailing_min(x, self.window)


FUNCTIONS = (
    Delay,
    Delta,
    MovingAverage,
    LinearDecay,
    ExponentialDecay,
    Volatility,
    TimeSeriesZScore,
    TrailingMax,
    TrailingMin,
)

"""Features of daily closes. Row t of a feature uses closes of days up to t and no later one."""

from __future__ import annotations

from collections.abc import Callable
from dataclasses import dataclass

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view
from numpy.typing import NDArray

__all__ = ["FEATURES", "Feature", "feature_records"]

Matrix = NDArray[np.float64]


@dataclass(frozen=True)
class Feature:
    """A feature of the vocabulary.

    Attributes:
        description: What it measures, with its unit.
        lookback: Days of closes before the current one that it reads.
        compute: From closes [days x tickers] to the feature, same shape, NaN where undefined.
    """

    description: str
    lookback: int
    compute: Callable[[Matrix], Matrix]


def _returns(closes: Matrix, days: int = 1) -> Matrix:
    """Simple returns over `days` days, [days x tickers]; the first rows are NaN."""
    out = np.full_like(closes, np.nan)
    out[days:] = closes[days:] / closes[:-days] - 1.0
    return out


def _rolling(values: Matrix, days: int, statistic: Callable[..., Matrix]) -> Matrix:
    """`statistic` of the last `days` rows, the current one included; NaN until there are enough."""
    out = np.full_like(values, np.nan)
    if len(values) >= days:
        out[days - 1 :] = statistic(sliding_window_view(values, days, axis=0), axis=-1)
    return out


def _lagged(values: Matrix, days: int) -> Matrix:
    out = np.full_like(values, np.nan)
    out[days:] = values[:-days]
    return out


def _market_relative(closes: Matrix, days: int) -> Matrix:
    returns = _returns(closes, days)
    listed = np.isfinite(returns)
    count = listed.sum(axis=1, keepdims=True)
    total = np.where(listed, returns, 0.0).sum(axis=1, keepdims=True)
    return returns - total / np.where(count > 0, count, np.nan)


def _skewness(closes: Matrix, days: int) -> Matrix:
    returns = _returns(closes)
    mean = _rolling(returns, days, np.mean)
    second = _rolling(returns**2, days, np.mean) - mean**2
    third = _rolling(returns**3, days, np.mean) - 3.0 * mean * second - mean**3
    # Below this a price has not moved, and what is left of the moments is rounding.
    return third / np.where(second > 1e-12, second, np.nan) ** 1.5


def _downside_share(closes: Matrix, days: int) -> Matrix:
    returns = _returns(closes)
    losses = _rolling(np.minimum(returns, 0.0) ** 2, days, np.sum)
    total = _rolling(returns**2, days, np.sum)
    return losses / np.where(total > 0.0, total, np.nan)


FEATURES: dict[str, Feature] = {
    "returns_1d": Feature("return of the day", 1, lambda c: _returns(c, 1)),
    "returns_5d": Feature("return of 5 days", 5, lambda c: _returns(c, 5)),
    "returns_20d": Feature("return of 20 days", 20, lambda c: _returns(c, 20)),
    "reversal_1d": Feature(
        "return of the day below the market's", 1, lambda c: -_market_relative(c, 1)
    ),
    "reversal_5d": Feature(
        "return of 5 days below the market's", 5, lambda c: -_market_relative(c, 5)
    ),
    "reversal_20d": Feature(
        "return of 20 days below the market's", 20, lambda c: -_market_relative(c, 20)
    ),
    "momentum_60d": Feature("return of 60 days", 60, lambda c: _returns(c, 60)),
    "momentum_250d": Feature(
        "return of 250 days up to 20 days ago", 250, lambda c: _lagged(_returns(c, 230), 20)
    ),
    "volatility_20d": Feature(
        "standard deviation of 20 daily returns", 20, lambda c: _rolling(_returns(c), 20, np.std)
    ),
    "volatility_60d": Feature(
        "standard deviation of 60 daily returns", 60, lambda c: _rolling(_returns(c), 60, np.std)
    ),
    "skewness_60d": Feature("skewness of 60 daily returns", 60, lambda c: _skewness(c, 60)),
    "downside_share_60d": Feature(
        "share of losses in the squared returns of 60 days", 60, lambda c: _downside_share(c, 60)
    ),
    "distance_high_250d": Feature(
        "close against the highest of 250 days, 0 at the high",
        249,
        lambda c: c / _rolling(c, 250, np.max) - 1.0,
    ),
    "distance_low_60d": Feature(
        "close against the lowest of 60 days, 0 at the low",
        59,
        lambda c: c / _rolling(c, 60, np.min) - 1.0,
    ),
    "distance_mean_20d": Feature(
        "close against the mean of 20 days", 19, lambda c: c / _rolling(c, 20, np.mean) - 1.0
    ),
}


def feature_records() -> dict[str, dict[str, str | int]]:
    """Return the "features" section of the vocabulary: name -> description and lookback in days."""
    return {
        name: {"name": name, "description": feature.description, "lookback": feature.lookback}
        for name, feature in FEATURES.items()
    }

"""Reductions: the weights of several signals made into one book.

Signals come as weights and PnL. What a day's combination rests on is known at that day's close:
a PnL of day t is earned by day t's close, and the weights of day t are held from then on.
"""

from __future__ import annotations

from collections.abc import Sequence
from dataclasses import dataclass

import numpy as np

from quillstone.functions import _rolling as rolling
from quillstone.functions._base import CatalogFunction, days_rule
from quillstone.functions.cross_section import ratio


class Reduction(CatalogFunction):
    """Takes one weights array [days x tickers] per signal and their net PnL [days x signals]."""

    TYPE, FAMILY = "reduction", "combination"


def blend(weights: Sequence[np.ndarray], shares: np.ndarray) -> np.ndarray:
    """Sum of the signals' weights in their daily shares [days x signals].

    Shares are made to sum to one per day; a day without usable shares takes equal ones.
    """
    shares = np.where(np.isfinite(shares) & (shares > 0.0), shares, 0.0)
    total = shares.sum(axis=1, keepdims=True)
    shares = np.where(total > 0.0, ratio(shares, total), 1.0 / shares.shape[1])
    out = np.zeros_like(weights[0])
    for column, signal in enumerate(weights):
        out += shares[:, column, None] * np.nan_to_num(signal)
    return out


@dataclass(frozen=True)
class EqualMean(Reduction):
    """Every signal with the same share."""

    NAME, SUBFAMILY = "equal_mean", "fixed"

    def __call__(self, weights: Sequence[np.ndarray], pnl: np.ndarray) -> np.ndarray:
        return blend(weights, np.ones_like(pnl))


@dataclass(frozen=True)
class SharpeWeighted(Reduction):
    """Shares in proportion to each signal's positive Sharpe ratio of the last ``window`` days."""

    NAME, SUBFAMILY = "sharpe_weighted", "adaptive"
    STATEFUL = True
    PARAMS = {"window": days_rule(504, least=20)}
    window: int = 504

    def __call__(self, weights: Sequence[np.ndarray], pnl: np.ndarray) -> np.ndarray:
        mean, std = rolling.trailing_mean_std(pnl, self.window)
        return blend(weights, ratio(mean, std))


@dataclass(frozen=True)
class InverseVolatility(Reduction):
    """Shares in proportion to one over the PnL's volatility of the last ``window`` days."""

    NAME, SUBFAMILY = "inverse_volatility", "adaptive"
    STATEFUL = True
    PARAMS = {"window": days_rule(126, least=20)}
    window: int = 126

    def __call__(self, weights: Sequence[np.ndarray], pnl: np.ndarray) -> np.ndarray:
        std = rolling.trailing_mean_std(pnl, self.window)[1]
        return blend(weights, ratio(np.ones_like(std), std))


FUNCTIONS = (EqualMean, SharpeWeighted, InverseVolatility)

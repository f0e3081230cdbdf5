"""Daily PnL and the statistics drawn from it and from the weights.

Weights are fractions of a fixed capital, set anew each day, so PnL adds up and is itself a
fraction of that capital (0.01 is one per cent). A year has 252 trading days.
"""

from __future__ import annotations

import math
from collections.abc import Iterator
from dataclasses import dataclass, field
from typing import Any

import numpy as np

TRADING_DAYS = 252
PNL_COLUMNS = ("pnl_net", "pnl_gross")
PNL_DTYPE = np.dtype([("date", "datetime64[D]"), *((name, np.float64) for name in PNL_COLUMNS)])
QUALITY_BLOCK_DAYS = 63


@dataclass(frozen=True, eq=False)
class PnlTable:
    """Daily PnL by column: ``table["pnl_net"]`` is float64 [days], ``table.dates`` the days.

    The PnL of a day is what the weights of the day before earned by that day's close; "pnl_gross"
    is before and "pnl_net" after costs. ``array`` is the structured form [days] that is stored.
    """

    array: np.ndarray

    @property
    def dates(self) -> np.ndarray:
        """The days, datetime64[D]."""
        return self.array["date"]

    @property
    def columns(self) -> tuple[str, ...]:
        """The names of the PnL columns."""
        return tuple(name for name in self.array.dtype.names or () if name != "date")

    def keys(self) -> tuple[str, ...]:
        """The names of the PnL columns, so that a table converts to a dictionary."""
        return self.columns

    def __getitem__(self, column: str) -> np.ndarray:
        return self.array[column]

    def __iter__(self) -> Iterator[str]:
        return iter(self.columns)

    def __len__(self) -> int:
        return len(self.array)

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, PnlTable):
            return NotImplemented
        return self.array.dtype == other.array.dtype and bool(np.all(self.array == other.array))

    __hash__ = None  # type: ignore[assignment]

    def __repr__(self) -> str:
        return f"PnlTable({len(self)} days, columns={list(self.columns)})"


@dataclass
class WeightStats:
    """Statistics of a book's weights, over the days on which it holds positions.

    Attributes:
        avg_turnover: Mean over days of the sum of absolute changes of weights: buying and selling
            both count, so that turning a book of unit gross over once is 2.
        turnover: The turnover that gates judge, equal to ``avg_turnover``.
        delta_exposure: Mean over days of the absolute sum of the weights (net exposure).
        max_weight: Greatest absolute weight of any day.
        abs_weight_sum_mean: Mean gross exposure (sum of absolute weights).
        liquidity_metrics: "names_held" (mean number of tickers with a position),
            "effective_names" (mean of gross squared over the sum of squared weights) and
            "holding_days" (days that the mean turnover takes to turn the book over; left out
            when nothing is traded).
        custom_stats: "active_days" and, of the net PnL, "volatility" (annualised), "hit_rate"
            (share of the days with PnL that gained) and "worst_day".
    """

    avg_turnover: float
    turnover: float
    delta_exposure: float
    max_weight: float
    abs_weight_sum_mean: float
    liquidity_metrics: dict[str, float] = field(default_factory=dict)
    custom_stats: dict[str, float] = field(default_factory=dict)


def daily_turnover(weights: np.ndarray) -> np.ndarray:
    """Sum of absolute changes of weights per day, [days]; the first day builds the book."""
    return np.abs(np.diff(weights, axis=0, prepend=0.0)).sum(axis=1)


def weight_stats(weights: np.ndarray, net_pnl: np.ndarray) -> WeightStats:
    """Statistics of finite weights [days x tickers] and their net PnL [days]."""
    gross = np.abs(weights).sum(axis=1)
    active = gross > 0.0
    if not active.any():
        return WeightStats(0.0, 0.0, 0.0, 0.0, 0.0, {}, {"active_days": 0.0})
    held, held_gross = weights[active], gross[active]
    turnover = float(daily_turnover(weights)[active].mean())
    moved = net_pnl[net_pnl != 0.0]
    liquidity = {
        "names_held": float(np.count_nonzero(held, axis=1).mean()),
        "effective_names": float((held_gross**2 / (held**2).sum(axis=1)).mean()),
    }
    if turnover > 0.0:
        liquidity["holding_days"] = 2.0 * float(held_gross.mean()) / turnover
    return WeightStats(
        avg_turnover=turnover,
        turnover=turnover,
        delta_exposure=float(np.abs(held.sum(axis=1)).mean()),
        max_weight=float(np.abs(held).max()),
        abs_weight_sum_mean=float(held_gross.mean()),
        liquidity_metrics=liquidity,
        custom_stats={
            "active_days": float(active.sum()),
            "volatility": float(net_pnl.std(ddof=1) * math.sqrt(TRADING_DAYS)),
            "hit_rate": float((moved > 0.0).mean()) if moved.size else 0.0,
            "worst_day": float(net_pnl.min()),
        },
    )


def sharpe_ratio(pnl: np.ndarray) -> float:
    """Annualised mean over standard deviation of daily PnL; 0.0 where it is not defined."""
    spread = pnl.std(ddof=1) if pnl.size > 1 else 0.0
    if not spread > 1e-15:
        return 0.0
    return float(pnl.mean() / spread * math.sqrt(TRADING_DAYS))


def max_drawdown(pnl: np.ndarray) -> float:
    """Greatest loss from a high of the capital with PnL reinvested, as a positive fraction."""
    wealth = np.concatenate([[1.0], np.cumprod(1.0 + pnl)])
    high = np.maximum.accumulate(wealth)
    return float(np.max(1.0 - wealth / high))


def quality_score(pnl: np.ndarray) -> float:
    """Sharpe ratio times the share of quarters (63 days) that gained: steady beats lucky."""
    blocks = len(pnl) // QUALITY_BLOCK_DAYS
    if blocks == 0:
        return 0.0
    recent = pnl[-blocks * QUALITY_BLOCK_DAYS :].reshape(blocks, QUALITY_BLOCK_DAYS)
    return sharpe_ratio(pnl) * float((recent.sum(axis=1) > 0.0).mean())


def column_stats(pnl: PnlTable, since: int) -> dict[str, Any]:
    """Statistics of each PnL column from row ``since`` on, as "<column>_<statistic>".

    "_sharpe" and "_returns" (mean PnL) are annualised, "_drawdown" is a positive fraction of
    capital, "_quality_score" see `quality_score`.
    """
    stats: dict[str, Any] = {}
    for column in pnl.columns:
        daily = pnl[column][since:]
        stats[f"{column}_sharpe"] = sharpe_ratio(daily)
        stats[f"{column}_returns"] = float(daily.mean()) * TRADING_DAYS if daily.size else 0.0
        stats[f"{column}_drawdown"] = max_drawdown(daily)
        stats[f"{column}_quality_score"] = quality_score(daily)
    return stats

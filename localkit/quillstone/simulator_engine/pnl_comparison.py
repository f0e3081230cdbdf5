"""How much two daily PnL series have in common.

Series are structured arrays [days] with "date" and PnL columns. They are compared over the days
that they share, each from the first day on which its PnL moved.
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping

import numpy as np

from quillstone.functions._rolling import shift, trailing_mean_std

MIN_COMMON_DAYS = 120
VOLATILITY_DAYS = 60


def correlation(a: np.ndarray, b: np.ndarray, column: str) -> float:
    """Pearson correlation; 0.0 where too few days are shared or a PnL does not move."""
    pair = _aligned([a, b], column)
    if len(pair) < MIN_COMMON_DAYS or not (pair.std(axis=0) > 0.0).all():
        return 0.0
    return float(np.clip(np.corrcoef(pair, rowvar=False)[0, 1], -1.0, 1.0))


def information_shares(
    candidate: np.ndarray, members: Mapping[str, np.ndarray], column: str
) -> dict[str, float]:
    """Share of information, 0 to 1, that a candidate has in common with each member of a pool.

    The mutual information I (in nats, nearest-neighbour estimate) of two series becomes the share
    ``sqrt(1 - exp(-2 I))``: for normal variables the absolute correlation, but dependence that is
    not linear counts too. Every PnL is first divided by its volatility of the days before, for
    otherwise all series would share the market's calm and stormy times. With several members the
    mean of them all is one more, so that a mere blend of the pool is seen for what it is.

    Empty where too few days are shared.
    """
    # Imported here: it takes a while, and only runs that reach this comparison need it.
    from sklearn.feature_selection import mutual_info_regression

    names = list(members)
    series = _standardised(_aligned([candidate, *members.values()], column))
    if len(series) < MIN_COMMON_DAYS:
        return {}
    first, others = series[:, 0], series[:, 1:]
    if len(names) > 1:
        names.append("mean of the pool")
        others = np.column_stack([others, others.mean(axis=1)])
    nats = mutual_info_regression(others, first, discrete_features=False, random_state=0)
    shares = np.sqrt(1.0 - np.exp(-2.0 * np.maximum(nats, 0.0)))
    return dict(zip(names, shares.tolist(), strict=True))


def _aligned(series: Iterable[np.ndarray], column: str) -> np.ndarray:
    """Values [days x series] of the days that all series share."""
    parts = []
    for pnl in series:
        moved = np.flatnonzero(pnl[column] != 0.0)
        parts.append(pnl[moved[0] :] if moved.size else pnl[:0])
    days = parts[0]["date"]
    for part in parts[1:]:
        days = np.intersect1d(days, part["date"], assume_unique=True)
    return np.column_stack([part[column][np.isin(part["date"], days)] for part in parts])


def _standardised(values: np.ndarray) -> np.ndarray:
    """Values over their volatility of the days before, without the rows where one has none."""
    with np.errstate(all="ignore"):
        scaled = values / shift(trailing_mean_std(values, VOLATILITY_DAYS)[1], 1)
    return scaled[np.isfinite(scaled).all(axis=1)]

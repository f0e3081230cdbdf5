"""Trailing windows over [days x tickers] arrays, without a loop over days.

A window of n days is put together from windows of 1, 2, 4, ... days (about 2 log2(n) array
operations). Nothing is ever subtracted again, so neither rounding errors nor a NaN or an
infinity outlive the window that holds them, and no output depends on a later row.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np

Array = np.ndarray
Parts = tuple[Array, ...]
# (newer days, older days, number of newer days, number of older days) -> both together
Join = Callable[[Parts, Parts, int, int], Parts]


def shift(x: Array, days: int, fill: float = np.nan) -> Array:
    """Row t holds row t - days of ``x`` (days >= 0); the first rows hold ``fill``."""
    out = np.empty_like(x)
    out[:days] = fill
    out[days:] = x[: max(len(x) - days, 0)]
    return out


def trailing(parts: Parts, join: Join, days: int) -> Parts:
    """Fold the last ``days`` rows, today's included; NaN before that many rows exist."""
    block, span = parts, 1
    result: Parts | None = None
    covered = 0
    while True:
        if days & span:
            if result is None:
                result = block
            else:
                result = join(result, tuple(shift(part, covered) for part in block), covered, span)
            covered += span
        if result is not None and covered == days:
            return result
        block = join(block, tuple(shift(part, span) for part in block), span, span)
        span *= 2


def trailing_sum(x: Array, days: int) -> Array:
    """Sum of the last ``days`` values."""
    return trailing((x,), lambda new, old, _n, _m: (new[0] + old[0],), days)[0]


def trailing_mean(x: Array, days: int) -> Array:
    """Mean of the last ``days`` values."""
    return trailing_sum(x, days) / days


def trailing_max(x: Array, days: int) -> Array:
    """Greatest of the last ``days`` values."""
    return trailing((x,), lambda new, old, _n, _m: (np.maximum(new[0], old[0]),), days)[0]


def trailing_min(x: Array, days: int) -> Array:
    """Least of the last ``days`` values."""
    return -trailing_max(-x, days)


def trailing_mean_std(x: Array, days: int) -> tuple[Array, Array]:
    """Mean and sample standard deviation (divisor days - 1) of the last ``days`` >= 2 values."""

    def join(new: Parts, old: Parts, n: int, m: int) -> Parts:
        gap = new[0] - old[0]
        mean = old[0] + gap * (n / (n + m))
        return mean, new[1] + old[1] + gap * gap * (n * m / (n + m))

    mean, squares = trailing((x, x * 0.0), join, days)
    return mean, np.sqrt(squares / (days - 1))


def linear_decay(x: Array, days: int) -> Array:
    """Mean of the last ``days`` values weighted days, days - 1, ..., 1 from today back."""

    def join(new: Parts, old: Parts, _n: int, m: int) -> Parts:
        # Every newer value moves up by the m older ones that now lie behind it.
        return new[0] + m * new[1] + old[0], new[1] + old[1]

    weighted, _ = trailing((x, x), join, days)
    return weighted / (days * (days + 1) / 2)


def exponential_decay(x: Array, half_life: float) -> Array:
    """Mean of all values so far, a value's weight halving every ``half_life`` days.

    Missing values carry no weight; where today's value is missing the result is NaN.
    """
    missing = np.isnan(x)
    total = np.where(missing, 0.0, x)
    weight = np.where(missing, 0.0, 1.0)
    factor, span = 0.5 ** (1.0 / half_life), 1
    while span < len(x) and factor**span > 1e-18:
        total = total + factor**span * shift(total, span, 0.0)
        weight = weight + factor**span * shift(weight, span, 0.0)
        span *= 2
    return np.divide(total, weight, out=np.full_like(total, np.nan), where=~missing)

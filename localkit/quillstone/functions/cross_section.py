"""Rotations that compare the tickers of one day with each other."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from quillstone.functions._base import Rotation, number_rule


def _sum(x: np.ndarray) -> np.ndarray:
    return np.nansum(x, axis=1, keepdims=True)


def _count(x: np.ndarray) -> np.ndarray:
    return np.count_nonzero(~np.isnan(x), axis=1, keepdims=True)


def ratio(above: np.ndarray, below: np.ndarray) -> np.ndarray:
    """above / below, NaN where below is zero or NaN."""
    defined = (below != 0.0) & ~np.isnan(below)
    shape = np.broadcast_shapes(above.shape, below.shape)
    return np.divide(above, below, out=np.full(shape, np.nan), where=defined)


def demean(x: np.ndarray) -> np.ndarray:
    """Each day's values less their mean, in the unit of ``x``; equal values give exact zeros."""
    out = x - ratio(_sum(x), _count(x))
    # A rounding error left standing here would be blown up to a full book by a later rescale.
    noise = 64 * np.finfo(np.float64).eps * np.fmax.reduce(np.abs(x), axis=1, keepdims=True)
    return np.where(np.abs(out) <= noise, 0.0, out)


def unit_gross(x: np.ndarray) -> np.ndarray:
    """Each day's values over the sum of their absolute values; NaN on a day of zeros."""
    return ratio(x, _sum(np.abs(x)))


@dataclass(frozen=True)
class Rank(Rotation):
    """Rank within the day, from -0.5 (least) to 0.5 (greatest); equal values share their mean."""

    NAME, FAMILY, SUBFAMILY = "rank", "cross_section", "order"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        days, tickers = x.shape
        order = np.argsort(x, axis=1, kind="stable")  # NaN comes last
        ordered = np.take_along_axis(x, order, axis=1)
        index = np.broadcast_to(np.arange(tickers, dtype=np.float64), x.shape)
        changes = ordered[:, 1:] != ordered[:, :-1]
        edge = np.ones((days, 1), dtype=bool)
        starts = np.concatenate([edge, changes], axis=1)
        ends = np.concatenate([changes, edge], axis=1)
        first = np.maximum.accumulate(np.where(starts, index, 0.0), axis=1)
        last = np.where(ends, index, tickers)[:, ::-1]
        last = np.minimum.accumulate(last, axis=1)[:, ::-1]
        out = np.empty_like(x)
        np.put_along_axis(out, order, (first + last) / 2, axis=1)
        steps = np.maximum(_count(x) - 1, 1)
        centred = np.where(_count(x) > 1, out / steps - 0.5, 0.0)
        return np.where(np.isnan(x), np.nan, centred)


@dataclass(frozen=True)
class ZScore(Rotation):
    """Distance from the day's mean in standard deviations of the day (divisor n)."""

    NAME, FAMILY, SUBFAMILY = "zscore", "cross_section", "standardise"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        centred = demean(x)
        return ratio(centred, np.sqrt(ratio(_sum(centred * centred), _count(x))))


@dataclass(frozen=True)
class Neutralise(Rotation):
    """Deviation from the day's mean, so that the day's values sum to zero."""

    NAME, FAMILY, SUBFAMILY = "neutralise", "cross_section", "neutralise"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return demean(x)


@dataclass(frozen=True)
class Residual(Rotation):
    """What is left of the first operand after a regression on the second, day by day."""

    NAME, FAMILY, SUBFAMILY = "residual", "cross_section", "neutralise"
    ARITY = 2

    def __call__(self, x: np.ndarray, against: np.ndarray) -> np.ndarray:
        missing = np.isnan(x) | np.isnan(against)
        y = demean(np.where(missing, np.nan, x))
        z = demean(np.where(missing, np.nan, against))
        slope = np.nan_to_num(ratio(_sum(y * z), _sum(z * z)))
        return y - slope * z


@dataclass(frozen=True)
class Scale(Rotation):
    """Share of the day's gross: absolute values sum to one."""

    NAME, FAMILY, SUBFAMILY = "scale", "cross_section", "scale"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return unit_gross(x)


@dataclass(frozen=True)
class Winsorise(Rotation):
    """Pulls values beyond ``limit`` standard deviations of the day in to that limit."""

    NAME, FAMILY, SUBFAMILY = "winsorise", "cross_section", "outliers"
    PARAMS = {"limit": number_rule(2.5, 0.5, 10.0)}
    limit: float = 2.5

    def __call__(self, x: np.ndarray) -> np.ndarray:
        mean = ratio(_sum(x), _count(x))
        centred = x - mean
        reach = self.limit * np.sqrt(ratio(_sum(centred * centred), _count(x)))
        return np.clip(x, mean - reach, mean + reach)


FUNCTIONS = (Rank, ZScore, Neutralise, Residual, Scale, Winsorise)

"""The one rule by which every gate of the kit judges a metric.

A threshold is the least or the most that its metric may be; the limit itself passes.

- A metric that is missing, None, a boolean, no number or NaN fails its threshold. An infinite
  metric fails too, save one: positive infinity passes a minimum, since it stands for "better than
  any limit".
- A threshold that is None, a boolean, no number or NaN lets nothing pass: a gate without a limit
  is a mistake in the configuration, and a mistake must not open the gate. An infinite threshold
  compares as a number.
- A threshold that is absent is not judged. One that no metric belongs to is an error.
- Scalar thresholds named in the threshold set's "bypassed_thresholds" are not judged.
- No metric is changed before it is judged: a correlation of -0.9 is below a limit of 0.7, so
  whoever wants its size passes its absolute value.
"""

from __future__ import annotations

import math
import numbers
import reprlib
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

__all__ = [
    "SCALAR_THRESHOLD_FIELDS",
    "GateFailure",
    "GateResult",
    "evaluate_threshold_gates",
]

_AT_LEAST, _AT_MOST = "at least", "at most"

# Threshold field -> the metric that it limits, and the side on which the metric has to lie.
_SCALAR_RULES = {
    "min_sharpe": ("sharpe", _AT_LEAST),
    "max_turnover": ("turnover", _AT_MOST),
    "max_delta_exposure": ("delta_exposure", _AT_MOST),
    "max_weight": ("max_weight", _AT_MOST),
    "min_abs_weight_sum_mean": ("abs_weight_sum_mean", _AT_LEAST),
}
_POOL_RULES = {
    "is_correlation_threshold": ("is_correlation", _AT_MOST),
    "is_pnl_mi_threshold": ("is_pnl_mi", _AT_LEAST),
}
_BYPASSED = "bypassed_thresholds"

SCALAR_THRESHOLD_FIELDS: tuple[str, ...] = tuple(_SCALAR_RULES)


@dataclass(frozen=True)
class GateFailure:
    """One threshold that was not met; its text reads "turnover 0.812 must be at most 0.5"."""

    field: str
    metric: str
    value: Any
    side: str
    threshold: Any

    def __str__(self) -> str:
        return f"{self.metric} {_shown(self.value)} must be {self.side} {_shown(self.threshold)}"


@dataclass(frozen=True)
class GateResult:
    """The verdict, with every threshold that was not met, in the order in which they stand."""

    failures: tuple[GateFailure, ...] = ()

    @property
    def passed(self) -> bool:
        """True when every judged threshold was met."""
        return not self.failures


def evaluate_threshold_gates(
    *,
    metrics: Mapping[str, Any],
    threshold_set: Mapping[str, Any] | None,
    pool_thresholds: Mapping[str, Any] | None = None,
) -> GateResult:
    """Judge `metrics` by the thresholds given.

    Args:
        metrics: Metric values by name ("sharpe", "turnover", "is_correlation", ...).
        threshold_set: Scalar thresholds by field name (see `SCALAR_THRESHOLD_FIELDS`), and
            "bypassed_thresholds", the names of those to leave out.
        pool_thresholds: "is_correlation_threshold" and "is_pnl_mi_threshold" of a pool.

    Raises:
        ValueError: A threshold has an unknown name.
    """
    scalars = dict(threshold_set or {})
    bypassed = frozenset(scalars.pop(_BYPASSED, None) or ())
    failures = _failures(metrics, scalars, _SCALAR_RULES, bypassed)
    failures += _failures(metrics, pool_thresholds or {}, _POOL_RULES, frozenset())
    return GateResult(tuple(failures))


def _failures(
    metrics: Mapping[str, Any],
    thresholds: Mapping[str, Any],
    rules: Mapping[str, tuple[str, str]],
    bypassed: frozenset[str],
) -> list[GateFailure]:
    failures = []
    for field, threshold in thresholds.items():
        if field in bypassed:
            continue
        if field not in rules:
            raise ValueError(f"unknown threshold '{field}'; known are {', '.join(rules)}")
        metric, side = rules[field]
        value = metrics.get(metric)
        if not _is_met(_number(value), side, _number(threshold)):
            failures.append(GateFailure(field, metric, value, side, threshold))
    return failures


def _is_met(value: float, side: str, threshold: float) -> bool:
    if math.isinf(value):
        return value > 0 and side == _AT_LEAST and not math.isnan(threshold)
    return value >= threshold if side == _AT_LEAST else value <= threshold


def _number(value: Any) -> float:
    """`value` as a float, NaN (which meets nothing) when it is no number."""
    if isinstance(value, bool) or not isinstance(value, numbers.Real):
        return math.nan
    try:
        return float(value)
    except OverflowError:
        return math.nan


def _shown(value: Any) -> str:
    number = _number(value)
    return f"{number:.3g}" if not math.isnan(number) else reprlib.repr(value)

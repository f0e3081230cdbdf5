"""The structural check of a book: is it one that could be traded at all?"""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np


@dataclass(frozen=True)
class StructuralLimits:
    """Limits of the structural check.

    Attributes:
        min_active_share: Least share of days with any exposure.
        max_name_share: Most of a day's gross that may lie in one ticker ...
        max_concentrated_share: ... except on this share of the active days.
        max_net_share: Most that the mean absolute net exposure may be of the mean gross.
    """

    min_active_share: float = 0.5
    max_name_share: float = 0.4
    max_concentrated_share: float = 0.05
    max_net_share: float = 0.05


def structural_faults(weights: np.ndarray, limits: StructuralLimits) -> tuple[str, ...]:
    """What is wrong with weights [days x tickers], in words; empty when nothing is."""
    faults = []
    finite = np.isfinite(weights)
    if not finite.all():
        faults.append(f"{finite.size - np.count_nonzero(finite)} weights are not finite")
    weights = np.where(finite, weights, 0.0)
    gross = np.abs(weights).sum(axis=1)
    active = gross > 0.0
    active_share = float(active.mean()) if active.size else 0.0
    if active_share < limits.min_active_share:
        faults.append(f"no exposure on {1.0 - active_share:.0%} of the days")
    if not active.any():
        return tuple(faults)
    held, held_gross = weights[active], gross[active]
    largest = np.abs(held).max(axis=1) / held_gross
    concentrated = float((largest > limits.max_name_share).mean())
    if concentrated > limits.max_concentrated_share:
        faults.append(
            f"more than {limits.max_name_share:.0%} of gross in one ticker "
            f"on {concentrated:.0%} of the days"
        )
    net_share = float(np.abs(held.sum(axis=1)).mean() / held_gross.mean())
    if net_share > limits.max_net_share:
        faults.append(f"not dollar-neutral: net exposure is {net_share:.0%} of gross")
    return tuple(faults)

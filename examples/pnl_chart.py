"""A picture of what the passed signals and the strategy would have earned."""

from __future__ import annotations

from collections.abc import Sequence
from pathlib import Path
from typing import TYPE_CHECKING

import numpy as np
from matplotlib.figure import Figure

if TYPE_CHECKING:
    from session_views import Outcome


def draw(outcomes: Sequence[Outcome], path: Path, *, title: str) -> Path | None:
    """Draw the cumulative net PnL of everything useful.

    PnL is a percentage of a capital that stays the same, so it adds up over the days.

    Args:
        outcomes: The session's outcomes; those that are not useful are left out.
        path: The PNG to write.
        title: What the prices are.

    Returns:
        `path`, or None when there was nothing to draw.
    """
    useful = [(o.name, o.result) for o in outcomes if o.result is not None and o.is_useful]
    if not useful:
        return None
    figure = Figure(figsize=(11, 6), layout="constrained")
    axes = figure.subplots()
    for name, result in useful:
        is_strategy = result.pool_kind == "strategy"
        axes.plot(
            result.factor_pnl.dates,
            100.0 * np.cumsum(result.factor_pnl["pnl_net"]),
            label=f"{name} (Sharpe {result.per_column_stats['pnl_net_sharpe']:.2f})",
            color="black" if is_strategy else None,
            linewidth=2.2 if is_strategy else 1.1,
        )
    axes.set_title(f"Cumulative PnL after costs, {title}")
    axes.set_ylabel("% of capital")
    axes.axhline(0.0, color="grey", linewidth=0.6)
    axes.grid(alpha=0.3)
    axes.legend(loc="upper left", fontsize="small")
    path.parent.mkdir(parents=True, exist_ok=True)
    figure.savefig(path, dpi=120)
    return path

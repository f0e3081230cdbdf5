"""The era of a single machine: its configuration, and the watch for its end."""

from __future__ import annotations

import json
import os
from collections.abc import Sequence
from pathlib import Path
from typing import Any, Protocol

from quillstone.errors import SdkRuntimeNotReadyError

__all__ = ["ERA_ID", "LocalEraThread", "build_era_config", "load_era_config"]

ERA_ID = 1
RULE_ID = 1
COST_BPS = 2.0

# What a signal or a strategy must show over the whole history, after costs.
SIGNAL_THRESHOLDS = {
    "min_sharpe": 0.2,
    "max_turnover": 0.5,
    "max_delta_exposure": 0.05,
    "max_weight": 0.6,
    "min_abs_weight_sum_mean": 0.8,
}
STRATEGY_THRESHOLDS = SIGNAL_THRESHOLDS | {"min_sharpe": 0.3}


class _HasManifest(Protocol):
    def get_manifest(self) -> dict[str, Any] | None: ...


class LocalEraThread:
    """Tells which era the data directory is in; another sync may move it on at any time.

    Args:
        sync_manager: Owner of the manifest.
    """

    def __init__(self, sync_manager: _HasManifest) -> None:
        self._sync_manager = sync_manager

    def get_current_era_id(self) -> int | None:
        """Return the era of the synced data, None before the first sync."""
        manifest = self._sync_manager.get_manifest()
        return None if manifest is None else manifest["era_id"]


def build_era_config(named_universe: str, tickers: Sequence[str]) -> dict[str, Any]:
    """Return the era configuration for one universe.

    Args:
        named_universe: The universe, which every pool allows.
        tickers: Column names of every array of the universe.
    """
    thresholds = {
        RULE_ID: {
            "signal_is_thresholds": dict(SIGNAL_THRESHOLDS),
            "strategy_is_thresholds": dict(STRATEGY_THRESHOLDS),
        }
    }
    return {
        "era_id": ERA_ID,
        "allowed_named_universes": [named_universe],
        "universe_rules": {named_universe: {"rule_id": RULE_ID, "market_id": 1}},
        "signal_pools": [
            {
                "pool_id": "alpha",
                "name": "Daily cross-sectional signals",
                "signal_pool_name": "alpha",
                "allowed_named_universes": [named_universe],
                "is_correlation_threshold": 0.7,
                "is_pnl_mi_threshold": 0.5,
                "universes": thresholds,
            }
        ],
        "strategy_pools": [
            {
                "pool_id": "blend",
                "name": "Combinations of accepted signals",
                "strategy_pool_name": "blend",
                "signal_pool_name": "alpha",
                "allowed_named_universes": [named_universe],
                "is_correlation_threshold": 0.9,
                "strategy_is_pnl_mi_threshold": 0.2,
                "universes": thresholds,
            }
        ],
        "evaluation_pnl_columns": ["pnl_net", "pnl_gross"],
        "correlation_pnl_column": "pnl_gross",
        "mi_pnl_column": "pnl_gross",
        "column_labels": list(tickers),
        "cost_bps": COST_BPS,
        "transform_pipeline": _transform_pipeline(),
        "engine_definitions": _engine_definitions(),
    }


def load_era_config(path: str | os.PathLike[str]) -> dict[str, Any]:
    """Read a stored era configuration; the rule ids, text in JSON, become integers again.

    Raises:
        SdkRuntimeNotReadyError: There is none, or it cannot be read.
    """
    try:
        config: dict[str, Any] = json.loads(Path(path).read_text("utf-8"))
        for pool in [*config["signal_pools"], *config["strategy_pools"]]:
            pool["universes"] = {int(rule): entry for rule, entry in pool["universes"].items()}
    except (OSError, ValueError, LookupError, TypeError, AttributeError) as error:
        raise SdkRuntimeNotReadyError(f"no era configuration in {path}: {error}") from error
    return config


def _transform_pipeline() -> list[dict[str, Any]]:
    """The stages that every expression's values pass on their way to weights, in order.

    A run's metaparameters choose another option by the stage's name.
    """
    smooth = {f"decay_{days}d": _linear_decay(days) for days in (5, 20)}
    return [
        {"name": "smooth", "default": "none", "option_configs": {"none": {}, **smooth}},
        {
            "name": "neutralise",
            "default": "neutralise",
            "option_configs": {"neutralise": {}, "none": {}},
        },
        {"name": "rescale", "default": "l1_resize", "option_configs": {"l1_resize": {}}},
    ]


def _linear_decay(days: int) -> dict[str, Any]:
    return {"rotation": "linear_decay", "params": {"window": days}}


def _engine_definitions() -> dict[str, Any]:
    """What computes the figures, and by which conventions."""
    return {
        "backtest": {
            "engine": "daily_weights",
            "returns": "close of the weight's day to the next day's close",
            "cost_bps": COST_BPS,
            "days_per_year": 252,
            "columns": ["pnl_net", "pnl_gross"],
        },
        "correlation": {"engine": "pearson", "column": "pnl_gross", "limit": "at most"},
        "marginal_improvement": {
            "engine": "nearest_neighbour_mutual_information",
            "column": "pnl_gross",
            "limit": "at least",
        },
    }

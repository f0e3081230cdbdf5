"""Start-up of the kit on one machine: one call wires every collaborator of the simulations."""

from __future__ import annotations

import os
from collections.abc import Callable
from dataclasses import dataclass, field
from importlib import import_module
from pathlib import Path
from typing import Any

from quillstone._runtime import _graph_validator_config, _graph_validator_names
from quillstone.auth import LocalAuth
from quillstone.era import LocalEraThread, load_era_config
from quillstone.obfuscation import load_vocabulary
from quillstone.search_tracking import SearchTracker
from quillstone.simulator_engine.backtester import LocalBacktester
from quillstone.simulator_engine.batch_orchestrator import BatchOrchestrator, compute_search_plan
from quillstone.simulator_engine.found_signals import FoundSignalStore
from quillstone.simulator_engine.graph_validator import GraphValidator
from quillstone.sync import LocalSyncManager
from quillstone.vault import LocalVault

__all__ = ["LocalRuntime", "configure", "onboard"]

# Kit-wide settings; "named_universe" is what simulations use that name no universe.
_config: dict[str, Any] = {}


def configure(*, named_universe: str | None) -> None:
    """Set the universe for simulations that name none; None leaves it to the pool."""
    _config["named_universe"] = named_universe


@dataclass
class LocalRuntime:
    """All that `onboard` has wired.

    Attributes:
        useful_signals: Ids of the accepted signals that strategies draw on.
        useful_signal_pool: From id to the kept signal.
        useful_signal_metadata: From id to what is known of it.

    These three are what the simulations see, and change in place.
    """

    sync_manager: LocalSyncManager
    era_config: dict[str, Any]
    backtester: LocalBacktester
    tracker: SearchTracker
    found_signals: FoundSignalStore
    useful_signals: list[str] = field(default_factory=list)
    useful_signal_pool: dict[str, Any] = field(default_factory=dict)
    useful_signal_metadata: dict[str, dict[str, Any]] = field(default_factory=dict)

    def accept(self, graph: Any, result: Any) -> str:
        """Keep what a passed simulation found, so that later ones are compared with it.

        Args:
            graph: The typed graph that was simulated.
            result: Its result, obtained with `return_weights=True`.

        Returns:
            The id under which it is kept: the graph's hash.

        Raises:
            ValueError: The simulation did not pass every gate, or its weights are missing.
        """
        if result.failure_reason is not None or result.was_diagnostic_only:
            raise ValueError(f"only a passed simulation is kept; this one: {result.failure_detail}")
        if result.processed_weights is None:
            raise ValueError("simulate with return_weights=True to keep what is found")
        strategy = result.pool_kind == "strategy"
        column = self.era_config["evaluation_pnl_columns"][0]
        metadata = {
            "expression_type": "STRATEGY" if strategy else "SIGNAL",
            "graph_hash": graph.graph_hash,
            "named_universe": self.sync_manager.named_universe,
            "signal_pool_id": result.signal_pool_id,
            "sharpe": result.per_column_stats[f"{column}_sharpe"],
            "turnover": result.stats.avg_turnover,
        }
        pool = result.strategy_pool_id if strategy else result.signal_pool_id
        signal_id: str = graph.graph_hash
        self.found_signals.accept(
            signal_id, pool, result.processed_weights, result.factor_pnl, metadata
        )
        return signal_id

    def refresh_useful_signals(self, signal_pool_id: str) -> list[dict[str, Any]]:
        """Read a pool's useful signals back from the search tracker, for strategies to draw on.

        Returns:
            The tracker's rows of the signals that passed every gate and whose weights are kept.
        """
        universe = self.sync_manager.named_universe
        rows = self.tracker.useful_signals(
            signal_pool_id=signal_pool_id,
            named_universe=universe,
            era_id=self.era_config["era_id"],
            graph_hashes=self.found_signals.found_ids("SIGNAL", universe),
        )
        ids = [row["graph_hash"] for row in rows]
        self.useful_signal_pool.clear()
        self.useful_signal_pool.update({i: self.found_signals.found_signal_pool[i] for i in ids})
        self.useful_signal_metadata.clear()
        self.useful_signal_metadata.update(
            {
                row["graph_hash"]: {
                    "graph_hash": row["graph_hash"],
                    "signal_pool_id": row["signal_pool_id"],
                    "sharpe": row["sharpe"],
                    "turnover": row["turnover"],
                }
                for row in rows
            }
        )
        self.useful_signals[:] = ids
        return rows


def onboard(
    prices: str | os.PathLike[str],
    home: str | os.PathLike[str],
    *,
    named_universe: str | None = None,
    sync_manager: LocalSyncManager | None = None,
    set_phase: Callable[[str], None] | None = None,
) -> LocalRuntime:
    """Sync the data and wire the simulations of this process to them.

    Args:
        prices: CSV of daily closes, dates by tickers, plain or gzip.
        home: Directory for the account's secret, the data and the database of evaluations.
        named_universe: Name of the universe; by default made from the file's name.
        sync_manager: One that exists already, in place of a new one for `prices` in `home`.
        set_phase: Told each phase that a simulation enters.

    Raises:
        PriceFileError: The file of prices has an error.
        SyncError: The data directory cannot be built.
    """
    home = Path(home)
    if sync_manager is None:
        sync_manager = LocalSyncManager(home / "data", prices, named_universe=named_universe)
        sync_manager.request_for_sync()
    data_dir, universe = sync_manager.data_dir, sync_manager.named_universe
    era_config = load_era_config(data_dir / "era_config.json")
    signal_dir = data_dir / "signals"
    found_signals = FoundSignalStore(signal_dir)
    useful_signals: list[str] = []
    backtester = LocalBacktester(
        data_dir,
        signal_dir=signal_dir,
        found_signals=found_signals,
        era_config=era_config,
        named_universe=universe,
        useful_signals=lambda: useful_signals,
    )
    tracker = SearchTracker(home / "evaluations.sqlite")
    runtime = LocalRuntime(
        sync_manager, era_config, backtester, tracker, found_signals, useful_signals
    )
    simulations: Any = import_module("quillstone.simulate_signal")
    vocabulary = load_vocabulary(data_dir)
    registry = simulations._build_obfuscated_store(vocabulary)
    validator = GraphValidator(
        registry, _graph_validator_config(vocabulary), _graph_validator_names(vocabulary)
    )
    configure(named_universe=universe)
    simulations.init_simulate_signal(
        auth=LocalAuth(home / "wallet_secret"),
        sync_manager=sync_manager,
        vault=LocalVault(data_dir),
        backtester=backtester,
        search_tracker=tracker,
        era_thread=LocalEraThread(sync_manager),
        graph_validator=validator,
        compute_search_plan=compute_search_plan,
        era_config=era_config,
        load_vocabulary=lambda era_id: load_vocabulary(data_dir),
        useful_signal_metadata=runtime.useful_signal_metadata,
        useful_signals=useful_signals,
        useful_signal_pool=runtime.useful_signal_pool,
        found_signal_pool=found_signals.found_signal_pool,
        load_found_signal_pnl=found_signals.load,
        signal_dir=str(signal_dir),
        BatchOrchestrator_cls=BatchOrchestrator,
        set_phase=set_phase,
        correlate_per_pool=found_signals.correlate_per_pool,
        compute_mi_per_pool=found_signals.compute_mi_per_pool,
        vocabulary=registry,
        vocabulary_raw=vocabulary,
    )

    def use_vocabulary(raw_vocabulary: dict[str, Any]) -> None:
        if simulations._sync_manager is not sync_manager:
            return  # another runtime has been wired since
        changed = simulations._build_obfuscated_store(raw_vocabulary)
        simulations._vocabulary = changed
        validator.rebind(changed, _graph_validator_names(raw_vocabulary))

    sync_manager.runtime_freshness_guard.add_vocabulary_listener(use_vocabulary)
    return runtime

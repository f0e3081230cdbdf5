"""Simulate signal subcomponent — single expression evaluation pipeline.

`simulate_signal` and `simulate_strategy` take an expression graph and return a `SimulationHandle`
at once; a daemon thread syncs data, validates, evaluates and backtests the expression and decides
the selected pool's gates. The caller polls `status()`, waits in `result()` or calls `cancel()`.
`init_simulate_signal` wires the collaborators beforehand; `effective_simulation_options` lists what
an era offers to simulate.
"""

import logging
import threading
from collections.abc import Callable, Collection, Iterator, Mapping, Sequence
from dataclasses import dataclass
from inspect import Signature
from os import PathLike
from types import ModuleType
from typing import (
    Any,
    Literal,
    NotRequired,
    Protocol,
    TypedDict,
    TypeGuard,
    overload,
    type_check_only,
)

import numpy as np
from numpy.typing import ArrayLike, NDArray

from quillstone.auth import AuthError as AuthError
from quillstone.errors import SdkRuntimeNotReadyError as SdkRuntimeNotReadyError
from quillstone.function_store import FunctionEntry as FunctionEntry
from quillstone.function_store import FunctionStore as FunctionStore
from quillstone.sync import DiskSpaceError as DiskSpaceError
from quillstone.sync import EraError as EraError
from quillstone.sync import IntegrityError as IntegrityError
from quillstone.sync import SyncError as SyncError

__all__ = [
    "CancelledError",
    "SimulationHandle",
    "SimulationResult",
    "SimulationStatus",
    "effective_simulation_options",
    "init_simulate_signal",
    "simulate_signal",
    "simulate_strategy",
]

# ---- collaborators ----------------------------------------------------------------------------
#
# What a simulation asks of the objects handed to `init_simulate_signal`. These classes exist for
# type checkers only: import them below `if typing.TYPE_CHECKING`. A member that a collaborator may
# leave out cannot be declared in a protocol, so the docstrings name those.

@type_check_only
class GraphNode(Protocol):
    """A node of a typed expression graph, the kit's `FunctionGraphNode`."""

    @property
    def type(self) -> str:
        """The node's kind, such as "feature", "rotation" or "filtration"."""

    @property
    def children(self) -> Sequence[GraphNode]:
        """The node's operands, in order."""

@type_check_only
class AuthManager(Protocol):
    """Knows the account."""

    def get_wallet_secret(self) -> Any:
        """Return the account's secret, which is handed on unread to the vault and backtester."""

@type_check_only
class SyncManager(Protocol):
    """Keeps the local data in step with the server.

    Read where present: `bytes_downloaded` and `total_bytes` (int, for the progress of the sync),
    `_data_dir` or else `data_dir` (the synced directory that holds the reconstruction seed),
    `feature_dir` (handed to the evaluation), `runtime_freshness_guard` (`FreshnessGuard`).
    """

    def acquire(self) -> object:
        """Take the slot of a simulation; may block."""

    def release(self) -> object:
        """Give the slot back, once for each simulation that took it."""

    def request_for_sync(self) -> object:
        """Bring the data up to date. Simulations that run side by side share one call."""

    def get_manifest(self) -> Any:
        """Describe the synced data: a dict with "era_id", or an object with `era_id`."""

@type_check_only
class Vault(Protocol):
    """Holds the era's data.

    Read where present: `universe_mask`, the mask of a universe or a callable that returns it for
    a named universe.
    """

    @property
    def init_if_needed(self) -> Callable[..., object]:
        """Open the era's data.

        Called with the keywords `shuffle_blob` (60 bytes), `wallet_secret` and `era_id` (int); on
        `TypeError` with these three by position, then without arguments.
        """

@type_check_only
class InitializedVault(Protocol):
    """A vault that offers `initialize` in place of `init_if_needed`, otherwise as `Vault`."""

    @property
    def initialize(self) -> Callable[..., object]:
        """Open the era's data; called as `Vault.init_if_needed` is."""

@type_check_only
class _Reconstructing(Protocol):
    def init_reconstruction(
        self, *, shuffle_blob: bytes, wallet_secret: Any, era_id: int
    ) -> object:
        """Open the market data of an era."""

@type_check_only
class Backtester(_Reconstructing, Protocol):
    """Turns weights into statistics.

    Read where present: `evaluate_expression(graph, metaparameters=..., named_universe=...)`, needed
    where there is no batch orchestrator; `initialize_era_vault(shuffle_blob=..., wallet_secret=...,
    era_id=...)`; `evaluator` and `search_plan_factory`, replaced for the length of an evaluation;
    `raw_backtester`, registered with the freshness guard; `raw_vocabulary`, set when a vocabulary
    is reloaded; the caches of weights `_last_weights`, `last_eval_result`, `_last_eval_result`,
    `_cache` with `_cache_key`.
    """

    def backtest(
        self,
        *,
        weights: Any,
        era_config: dict[str, Any],
        universe: Any,
        return_series: bool,
        return_weights: bool,
        use_vault: bool,
    ) -> Any:
        """Backtest weights, an array of days by instruments; return a `BacktestOutput`.

        `universe` is what the vault's `universe_mask` gives for the simulation's universe.
        """

@type_check_only
class GraphBacktester(_Reconstructing, Protocol):
    """A backtester that backtests a graph that it has evaluated itself, otherwise `Backtester`."""

    def run_backtest(
        self,
        graph: Any,
        /,
        *,
        metaparameters: dict[str, Any],
        named_universe: str,
        return_series: bool,
        return_weights: bool,
    ) -> Any:
        """Backtest the weights of a graph; preferred to `backtest`; return a `BacktestOutput`."""

@type_check_only
class BacktestOutput(Protocol):
    """What a backtest returns: an object with these attributes, or a dict with these keys.

    All may be left out; further ones that are read: `found_signal_ids` (the signals that the
    candidate is compared with), `structural_failed` (bool, by default False), `portfolio_returns`,
    `processed_weights`.
    """

    @property
    def stats(self) -> Any:
        """`turnover` or `avg_turnover`, `delta_exposure`, `max_weight`, `abs_weight_sum_mean`.

        A recorded evaluation needs `avg_turnover`, `delta_exposure`, `max_weight`,
        `liquidity_metrics` and `custom_stats`.
        """

    @property
    def per_column_stats(self) -> Any:
        """Mapping from a PnL column's name and a suffix, such as "pnl_net_sharpe", to a number."""

    @property
    def factor_pnl(self) -> Any:
        """The daily PnL."""

@type_check_only
class SearchTracker(Protocol):
    """Records evaluations, when `SimulationHandle.result` first returns."""

    def record_signal_evaluation(
        self,
        *,
        source: str,
        graph: Any,
        named_universe: str,
        era_id: int,
        passed_thresholds: bool,
        rejection_reason: str | None,
        expression_elapsed_seconds: float,
        stats: Any,
        metaparameters: dict[str, Any],
        per_column_stats: Any,
        signal_pool_id: str,
    ) -> object:
        """Record the evaluation of a signal."""

    def record_strategy_evaluation(
        self,
        *,
        source: str,
        graph: Any,
        named_universe: str,
        era_id: int,
        passed_thresholds: bool,
        rejection_reason: str | None,
        expression_elapsed_seconds: float,
        stats: Any,
        metaparameters: dict[str, Any],
        per_column_stats: Any,
        strategy_pool_id: str,
        signal_pool_id: str,
        referenced_signal_ids: list[str],
    ) -> object:
        """Record the evaluation of a strategy."""

@type_check_only
class EraThread(Protocol):
    """Watches the era."""

    def get_current_era_id(self) -> object:
        """Return the era of this moment; one that differs from the simulation's ends it."""

@type_check_only
class GraphValidator(Protocol):
    """Knows what a valid expression is."""

    def validate(self, graph: Any, expression_type: str, /) -> object:
        """Raise when the graph is no valid expression of its type, "SIGNAL" or "STRATEGY"."""

@type_check_only
class BatchOrchestrator(Protocol):
    """Evaluates expressions."""

    def evaluate(
        self,
        *,
        graph: Any,
        expression_type: str,
        registry: Any,
        useful_signals: Any,
        universe: Any,
        metaparameters: dict[str, Any],
        transform_pipeline: Any,
        stage_data: Any,
        column_labels: Any,
        signal_universe_rule_ids: dict[Any, int],
        search_plan: Any,
        feature_dir: Any,
        signal_dir: Any,
        manifest: Any,
        backtester: Any,
    ) -> Any:
        """Evaluate a graph; return an object with `weights`, or with `per_pool_weights`.

        The weights are an array of days by instruments; `per_pool_weights` is a mapping from a
        pool's name to such an array and is preferred.
        """

@type_check_only
class BatchOrchestratorFactory(Protocol):
    """Makes an orchestrator for one simulation, such as its class."""

    def __call__(
        self,
        *,
        search_plan: Any,
        feature_dir: Any,
        signal_dir: Any,
        manifest: Any,
        backtester: Any,
        named_universe: str,
    ) -> BatchOrchestrator: ...

@type_check_only
class SearchPlanner(Protocol):
    """Plans an evaluation; the plan is handed on unread."""

    def __call__(self, graph: Any, expression_type: str, /, *, requested_n_jobs: int) -> Any: ...

@type_check_only
class FoundSignalLoader(Protocol):
    """Loads the PnL array of a found signal, None when it has none."""

    def __call__(self, signal_id: str, /, *, pool_name: str) -> Any: ...

@type_check_only
class PoolCorrelation(Protocol):
    """Returns the correlation of the candidate's PnL with that of the found signals."""

    def __call__(
        self, *, pool_name: str, pnl_arrays: list[Any], pnl_column: str, threshold: float
    ) -> float: ...

@type_check_only
class PoolImprovement(Protocol):
    """Returns the marginal improvement of the candidate's PnL and a detail, which is not used.

    A score that is no finite number fails the gate as "unavailable".
    """

    def __call__(
        self, *, pool_name: str, pnl_column: str, pool_signals: dict[str, Any], threshold: float
    ) -> tuple[float | None, Any]: ...

@type_check_only
class FreshnessGuard(Protocol):
    """Brings data that changed on disk into use, between and within simulations.

    Read where present: `snapshot`, with the mappings `pending_data_artifact_shas` and
    `loaded_data_artifact_shas` from an artifact's path to its content hash. A vocabulary that was
    pending before `ensure_fresh_before_evaluation` and is loaded after it is read again.
    """

    def register_module_consumer(self, name: str, consumer: Any, attribute: str, /) -> object:
        """Learn of an object that holds opened data in an attribute."""

    @property
    def ensure_fresh_before_evaluation(self) -> Callable[..., object]:
        """Called with the keyword `named_universe`, else by position, else without arguments."""

    @property
    def ensure_fresh_before_backtest(self) -> Callable[..., object]:
        """Called as `ensure_fresh_before_evaluation` is."""

@type_check_only
class EvaluatesByKeyword(Protocol):
    """An evaluator that `_SimulationOrchestratorEvaluator` can wrap."""

    @property
    def evaluate(self) -> Callable[..., Any]:
        """Evaluate a graph given by keywords."""

@type_check_only
class TypedEraConfig(Protocol):
    """An era configuration read by attribute."""

    @property
    def engine_definitions(self) -> Any:
        """The synced engine catalog, a dict."""

@type_check_only
class UniverseOption(TypedDict):
    """A universe that an era offers to simulate on."""

    id: str
    named_universe: str
    rule_id: int
    market_id: NotRequired[int]
    pool_id: NotRequired[int]

@type_check_only
class SimulationOptions(TypedDict):
    """What an era offers to simulate."""

    universe_options: list[UniverseOption]
    engine_definitions: dict[str, Any]

# ---- public interface -------------------------------------------------------------------------

class CancelledError(Exception):
    """Raised when simulation is cancelled."""

@dataclass
class SimulationStatus:
    """Snapshot of simulation progress.

    Attributes
    ----------
    phase : str
        "syncing", "initializing", "evaluating", "backtesting", "computing_mi", then "complete",
        "cancelled" or "error".
    progress : float
        A fraction from 0.0 to 1.0: of the bytes while data is synced, 1.0 at completion, 0.0
        otherwise.
    message : str
        A line for people.
    era_id : int
        The era that the simulation runs against.
    elapsed_s : float
        Seconds since the handle was created, by the monotonic clock.
    """

    phase: str = ""
    progress: float = 0.0
    message: str = ""
    era_id: int = 0
    elapsed_s: float = 0.0

@dataclass
class SimulationResult:
    """Wrapper for simulation results with selected-pool evaluation.

    Attributes
    ----------
    stats, factor_pnl, per_column_stats, portfolio_returns, processed_weights
        What the backtester returned; the last two only when asked for.
    pool_kind : str
        "signal" or "strategy".
    signal_pool_id, strategy_pool_id : str or None
        The selected pool; for a strategy also the signal pool that it is linked to.
    is_correlation : float
        The correlation with found signals, 0.0 when there are none.
    is_pnl_mi : float or None
        The marginal-improvement threshold used, None when that gate was not entered.
    was_diagnostic_only : bool
        A gate failed earlier and the later ones were computed under fail_fast=False.
    failure_reason, failure_detail : str or None
        The first gate that failed, and its text.
    passed : bool
        The structural check and the scalar thresholds passed.
    structural_failed : bool
        The backtester's structural check failed.
    mi_score : float or None
        The marginal-improvement score; infinite for the first signal of a pool.
    mi_passed : bool or None
        None when the score was not computed.
    rejection_reason : None
        The rejection text lives in the tracking record.
    expression_elapsed_seconds : float
        Seconds spent evaluating the expression.
    resolved_metaparameters : dict
        The metaparameters in force for the selected pool.
    """

    stats: Any = None
    factor_pnl: Any = None
    per_column_stats: Any = None
    portfolio_returns: Any = None
    processed_weights: Any = None
    pool_kind: str | None = None
    signal_pool_id: str | None = None
    strategy_pool_id: str | None = None
    is_correlation: float | None = None
    is_pnl_mi: float | None = None
    was_diagnostic_only: bool = False
    failure_reason: str | None = None
    failure_detail: str | None = None
    passed: bool = True
    structural_failed: bool = False
    mi_score: float | None = None
    mi_passed: bool | None = None
    rejection_reason: str | None = None
    expression_elapsed_seconds: float | None = None
    resolved_metaparameters: dict[str, Any] | None = None

class SimulationHandle:
    """Handle to a running simulation.

    Made by `simulate_signal` and `simulate_strategy`; making one starts its daemon thread.

    Parameters
    ----------
    graph : FunctionGraphNode
        The typed expression.
    named_universe : str
        The resolved named universe.
    expression_type : str
        "SIGNAL" or "STRATEGY".
    metaparameters, include_correlation, include_mi, record, return_series, return_weights,
    fail_fast
        As for the entry points.
    selected_pool_id : str
        The pool whose gates decide.
    selected_pool_kind : str, optional
        "signal" or "strategy"; by default that of the expression type.

    Raises
    ------
    TypeError
        When the graph is not typed.
    ValueError
        When the graph holds an aggregation node or the pool id is no non-empty string.
    """

    _graph: Any
    _named_universe: str
    _universe_rule_id: int | None
    _expression_type: str
    _metaparameters: Mapping[str, Any] | None
    _include_correlation: bool
    _include_mi: bool
    _record: bool
    _return_series: bool
    _return_weights: bool
    _selected_pool_id: str
    _selected_pool_kind: str
    _fail_fast: bool
    _lock: threading.Lock
    _status: SimulationStatus
    _result: SimulationResult | None
    _error: BaseException | None
    _cancelled: bool
    _done_event: threading.Event
    _start_time: float
    _acquired: bool
    _pending_recording: tuple[str, dict[str, Any]] | None
    _result_retrieved: bool
    _pipeline_acquired: bool
    _released: bool
    _pre_acquired: bool
    _acquire_done: threading.Event
    _post_acquire_gate: threading.Event
    _thread: threading.Thread
    _config_era_id: int  # set when the pipeline starts

    def __init__(
        self,
        graph: GraphNode,
        named_universe: str,
        expression_type: str,
        metaparameters: Mapping[str, Any] | None = None,
        include_correlation: bool = True,
        include_mi: bool = True,
        record: bool = True,
        return_series: bool = False,
        return_weights: bool = False,
        selected_pool_id: str | None = None,
        selected_pool_kind: str | None = None,
        fail_fast: bool = True,
    ) -> None: ...
    def status(self) -> SimulationStatus:
        """Return a new snapshot of the simulation's progress.

        Returns
        -------
        SimulationStatus
            `elapsed_s` is computed anew at each call.
        """

    def result(self) -> SimulationResult:
        """Block until completion, return BacktestResult or raise exception.

        The first successful call records the evaluation with the search tracker; later calls return
        the same result, or raise the same error, again. The sync manager is released once. An error
        of the search tracker is raised by the call that recorded; the evaluation is not recorded
        again, and the next call returns the result.

        Returns
        -------
        SimulationResult

        Raises
        ------
        CancelledError
            When the simulation was cancelled.
        Exception
            Whatever ended the simulation, or an error of the search tracker.
        """

    def cancel(self) -> None:
        """Cancel simulation immediately. No-op if already done/cancelled.

        A simulation that has finished counts as done once `result()` has returned; until then
        cancelling it discards its result.
        """

    def _update_status(self, phase: str, progress: float = 0.0, message: str = "") -> None: ...
    def _check_cancelled(self) -> None: ...
    def _do_release(self) -> None: ...
    def _run_pipeline(self) -> None: ...

# The signatures that the functions publish. A universe by position and a call without a pool id
# bind as well, but the one hides what is named and the other always raises ValueError.

def simulate_signal(
    graph: GraphNode | Mapping[str, Any],
    *,
    named_universe: str | None = None,
    signal_pool_id: str,
    metaparameters: Mapping[str, Any] | None = None,
    include_correlation: bool = True,
    include_mi: bool = True,
    record: bool = True,
    return_series: bool = False,
    return_weights: bool = False,
    fail_fast: bool = True,
) -> SimulationHandle:
    """Evaluate a signal expression graph. Returns SimulationHandle immediately.

    Parameters
    ----------
    graph : FunctionGraphNode or dict
        The expression, typed or in its dictionary form; rotation and feature nodes only.
    named_universe : str, optional
        The universe to simulate on, a single path segment. By default the configured one, else the
        first that the selected pool allows.
    signal_pool_id : str
        The signal pool whose gates decide; any identifier of the pool will do.
    metaparameters : dict, optional
        Options chosen for stages of the era's transform pipeline, by the stage's name.
    include_correlation : bool
        Compare the PnL with that of what was found already.
    include_mi : bool
        Compute the marginal improvement (mutual-information score) of the PnL.
    record : bool
        Record the evaluation with the search tracker when `result()` is first called.
    return_series, return_weights : bool
        Ask the backtester for the return series and the processed weights.
    fail_fast : bool
        Stop at the first gate that fails; otherwise compute all of them for diagnosis.

    Returns
    -------
    SimulationHandle
        At once; the simulation runs on the handle's daemon thread.

    Raises
    ------
    ValueError
        When the graph holds an aggregation node, the pool id is no non-empty string, or no safe
        named universe can be found.
    RuntimeError
        When the kit's typed graph classes cannot be found.
    Exception
        Whatever the kit's `FunctionGraphNode.from_raw` raises for a malformed dictionary.

    Errors of the simulation itself are raised by `SimulationHandle.result()`.
    """

def simulate_strategy(
    graph: GraphNode | Mapping[str, Any],
    *,
    named_universe: str | None = None,
    strategy_pool_id: str,
    metaparameters: Mapping[str, Any] | None = None,
    include_correlation: bool = True,
    include_mi: bool = True,
    record: bool = True,
    return_series: bool = False,
    return_weights: bool = False,
    fail_fast: bool = True,
) -> SimulationHandle:
    """Evaluate a strategy expression graph. Returns SimulationHandle immediately.

    Parameters
    ----------
    graph : FunctionGraphNode or dict
        The expression, typed or in its dictionary form; at least one filtration node.
    named_universe : str, optional
        The universe to simulate on, a single path segment. By default the configured one, else the
        first that the selected pool, or the signal pool that it is linked to, allows.
    strategy_pool_id : str
        The strategy pool whose gates decide; any identifier of the pool will do.
    metaparameters : dict, optional
        Options chosen for stages of the era's transform pipeline, by the stage's name.
    include_correlation : bool
        Compare the PnL with that of what was found already.
    include_mi : bool
        Compute the marginal improvement (mutual-information score) of the PnL.
    record : bool
        Record the evaluation with the search tracker when `result()` is first called.
    return_series, return_weights : bool
        Ask the backtester for the return series and the processed weights.
    fail_fast : bool
        Stop at the first gate that fails; otherwise compute all of them for diagnosis.

    Returns
    -------
    SimulationHandle
        At once; the simulation runs on the handle's daemon thread.

    Raises
    ------
    ValueError
        When the graph holds an aggregation node, the pool id is no non-empty string, or no safe
        named universe can be found.
    RuntimeError
        When the kit's typed graph classes cannot be found.
    Exception
        Whatever the kit's `FunctionGraphNode.from_raw` raises for a malformed dictionary.

    Errors of the simulation itself are raised by `SimulationHandle.result()`.
    """

def init_simulate_signal(
    auth: AuthManager,
    sync_manager: SyncManager,
    vault: Vault | InitializedVault,
    backtester: Backtester | GraphBacktester,
    search_tracker: SearchTracker,
    era_thread: EraThread,
    graph_validator: GraphValidator | None = None,
    batch_orchestrator: BatchOrchestrator | None = None,
    compute_search_plan: SearchPlanner | None = None,
    era_config: dict[str, Any] | None = None,
    load_vocabulary: Callable[[int], Mapping[str, Any]] | None = None,
    useful_signal_metadata: Mapping[Any, Mapping[str, Any]] | None = None,
    useful_signals: Sequence[Any] | None = None,
    useful_signal_pool: Mapping[Any, Any] | None = None,
    found_signal_pool: Mapping[Any, Any] | None = None,
    load_found_signal_pnl: FoundSignalLoader | None = None,
    signal_dir: str | PathLike[str] | None = None,
    network_client: object = None,
    server_client: object = None,
    BatchOrchestrator_cls: BatchOrchestratorFactory | None = None,
    set_phase: Callable[[str], object] | None = None,
    correlate_per_pool: PoolCorrelation | None = None,
    compute_mi_per_pool: PoolImprovement | None = None,
    vocabulary: FunctionStore | None = None,
    vocabulary_raw: Mapping[str, Any] | None = None,
    runtime_freshness_guard: FreshnessGuard | None = None,
) -> None:
    """Wire all module-level DI globals for production use.

    Called once at agent start-up. Direct callers can bind alternate collaborators to build an
    isolated runtime. Every call rebinds every variable, so optional collaborators that are left out
    become None. Nothing is checked here: a missing collaborator fails in the phase that needs it.

    Parameters
    ----------
    auth
        AuthManager for wallet_secret retrieval.
    sync_manager
        SyncManager for data sync lifecycle.
    vault
        Era data vault (init_if_needed, universe_mask).
    backtester
        Backtest engine (backtest, init_reconstruction).
    search_tracker
        SearchTracker for recording evaluations.
    era_thread
        EraThread for era transition detection.
    graph_validator : optional
        GraphValidator instance (or built lazily).
    batch_orchestrator : optional
        Pre-built BatchOrchestrator instance.
    compute_search_plan : optional
        Callable for search plan computation.
    era_config : dict, optional
        Era config dict required for runtime simulation.
    load_vocabulary : optional
        Callable(era_id) returning the raw vocabulary dict.
    useful_signal_metadata : dict, optional
        Dict of useful signal metadata.
    useful_signals : list, optional
        List of useful signal IDs.
    useful_signal_pool : optional
        Pool of useful signal arrays.
    found_signal_pool : optional
        Pool of found signal PnL arrays.
    load_found_signal_pnl : optional
        Callable(signal_id, pool_name=...) returning a PnL array.
    signal_dir : optional
        Path to signal data directory.
    network_client : optional
        Network client for server communication.
    server_client : optional
        Server API client.
    BatchOrchestrator_cls : optional
        BatchOrchestrator class for construction.
    set_phase : optional
        Phase tracking callback.
    correlate_per_pool : optional
        Per-pool correlation callable.
    compute_mi_per_pool : optional
        Per-pool MI computation callable.
    vocabulary : FunctionStore, optional
        The runtime function store, when it is built already.
    vocabulary_raw : dict, optional
        The raw vocabulary that it was built from.
    runtime_freshness_guard : optional
        Guard that keeps synced data fresh; by default the sync manager's.
    """

def effective_simulation_options(
    era_config: dict[str, Any] | TypedEraConfig,
) -> SimulationOptions:
    """Per-era SDK simulation-options surface.

    Parameters
    ----------
    era_config : dict or typed era configuration
        The synced era configuration.

    Returns
    -------
    dict
        A new dictionary with two keys: "universe_options", a list of dictionaries with "id",
        "named_universe", "rule_id" and, where the rule has one, "market_id" and "pool_id", ordered
        by the universe's name; and "engine_definitions", a plain copy of the era's engine catalog
        (string keys, lists for tuples).

    Raises
    ------
    SdkRuntimeNotReadyError
        When the configuration carries no engine catalog.
    """

# ---- module variables -------------------------------------------------------------------------
#
# Read anew at each use, so that a sibling module may rebind them.

SIGNAL: str
STRATEGY: str
SCALAR_THRESHOLD_FIELDS: Collection[str]
_POOL_METRIC_THRESHOLD_SET: dict[str, Any]
logger: logging.Logger

_auth: AuthManager | None
_sync_manager: SyncManager | None
_graph_validator: GraphValidator | None
_batch_orchestrator: BatchOrchestrator | None
_backtester: Backtester | GraphBacktester | None
_search_tracker: SearchTracker | None
_era_thread: EraThread | None
_vault: Vault | InitializedVault | None
_compute_search_plan: SearchPlanner | None
_era_config: dict[str, Any] | None
_vocabulary: FunctionStore | None
_load_vocabulary: Callable[..., Mapping[str, Any]] | None
_useful_signal_metadata: Mapping[Any, Mapping[str, Any]] | None
_useful_signals: Sequence[Any] | None
_useful_signal_pool: Mapping[Any, Any] | None
_found_signal_pool: Mapping[Any, Any] | None
_load_found_signal_pnl: FoundSignalLoader | None
_signal_dir: str | PathLike[str] | None
_network_client: Any
_server_client: Any
_BatchOrchestrator: BatchOrchestratorFactory | None
_set_phase: Callable[[str], object] | None
_correlate_per_pool: PoolCorrelation | None
_compute_mi_per_pool: PoolImprovement | None
_runtime_freshness_guard: FreshnessGuard | None
_vocabulary_raw: Mapping[str, Any] | None

# One sync at a time serves all simulations; `_sync_lock` guards the four that follow it.
_simulation_lock: threading.Lock
_sync_lock: threading.Lock
_sync_in_progress: bool
_sync_result_cache: Any
_sync_exception_cache: BaseException | None
_sync_event: threading.Event

# Bound from the kit's sibling modules when the module is loaded.
evaluate_threshold_gates: Callable[..., Any]
vault_already_initialized_is_ready: Callable[[Any, BaseException], object]
_TrackingStats: Callable[..., Any]
_function_store: ModuleType
_canonicalize_metaparameters: Callable[..., Any]
_resolve_metaparameters: Callable[..., Any]
_resolve_metaparameters_per_pool: Callable[..., Any]
_has_filtration_node: Callable[[Any], object]

# ---- private functions ------------------------------------------------------------------------

type _FreshnessState = tuple[dict[str, str], dict[str, str]]
type _Payload = tuple[dict[Any, Any], tuple[Any, ...], str]

# Graphs
def _import_typed_shapes() -> tuple[type[Any], type[Any]]: ...
def _typed_runtime_graph(graph: GraphNode | Mapping[str, Any]) -> Any: ...
def _reject_public_aggregation_graph(graph: object) -> None: ...
def _require_typed_runtime_graph[G: GraphNode](graph: G) -> G: ...
def _has_filtration_runtime_graph(graph: Any) -> bool: ...
def _pool_v2_signature(pool_parameter_name: str) -> Signature: ...

# The engine
def _search_plan_of_run[T](plan: T, /, *args: object, **kwargs: object) -> T: ...
def _import_graph_validator_runtime() -> tuple[type[Any], type[Any]]: ...
def _factory_from_catalog_path(module_path: str | None, class_name: str | None) -> Any: ...

# Era configuration
def _resolve_runtime_era_config(era_id: Any) -> dict[str, Any]: ...
def _coerce_era_id(value: object) -> int | None: ...
def _era_id_from_manifest(manifest: object) -> int | None: ...
def _derive_synced_era_id(sync_manager: SyncManager) -> int: ...
def _required_runtime_data_shape_value(era_config: Mapping[str, Any], field: str) -> Any: ...
def _primary_evaluation_pnl_column(era_config: Mapping[str, Any]) -> Any: ...

# Pools and named universes
def _selected_pool_field_name(
    expression_type: str,
) -> Literal["signal_pool_id", "strategy_pool_id"]: ...
def _validate_selected_pool_id(pool_id: object, field_name: str) -> str: ...
def _safe_named_universe(named_universe: object) -> str | None: ...
def _pool_allowed_named_universes(pool_cfg: object) -> list[str]: ...
def _configured_named_universe() -> str | None: ...
def _first_pool_named_universe(
    era_cfg: Mapping[str, Any] | None, expression_type: str, selected_pool_id: object
) -> str | None: ...
def _resolve_simulation_named_universe(
    named_universe: object, expression_type: str, selected_pool_id: object
) -> str: ...
def _selected_pool_config(
    era_cfg: Mapping[str, Any], expression_type: str, selected_pool_id: object
) -> dict[str, Any]: ...
def _selected_pool_runtime_name(
    pool_cfg: Mapping[str, Any], expression_type: str, selected_pool_id: object
) -> str: ...

# Universe rules and thresholds
def _coerce_int_rule_id(value: object) -> int | None: ...
def _resolve_universe_rule_id_for_sdk(
    era_cfg: Mapping[str, Any], named_universe: str
) -> int | None: ...
def _resolve_pool_universe_thresholds(
    pool_cfg: Mapping[str, Any], universe_rule_id: int | None
) -> dict[str, Any]: ...

# Signals that a strategy refers to
def _strategy_signal_pool_id(
    strategy_pool_cfg: Mapping[str, Any], strategy_pool_id: object
) -> Any: ...
def _metadata_for_signal_ref(
    signal_ref: object, useful_signal_metadata: Mapping[Any, Any]
) -> Any: ...
def _signal_ref_label(signal_ref: object, metadata: Mapping[str, Any]) -> Any: ...
def _metadata_signal_pool_id(metadata: Mapping[str, Any] | None) -> Any: ...
def _validate_strategy_useful_signal_pools(
    strategy_pool_id: object,
    strategy_pool_cfg: Mapping[str, Any],
    useful_signals: Sequence[Any],
    useful_signal_metadata: Mapping[Any, Any],
) -> None: ...
def _strategy_referenced_signal_ids(
    useful_signals: Sequence[Any] | None,
    useful_signal_metadata: Mapping[Any, Any],
    pool_cfg: Mapping[str, Any],
) -> list[str]: ...

# Gates and tracking
@overload
def _tracking_metric(value: object, default: float = 0.0) -> float: ...
@overload
def _tracking_metric[T](value: object, default: T) -> float | T: ...
def _is_mi_score(value: object) -> TypeGuard[float]: ...
def _pool_metric_gate_passed(metrics: dict[str, Any], pool_thresholds: dict[str, Any]) -> Any: ...
def _pnl_mi_gate_passed(score: object, threshold: object) -> Any: ...
def _correlation_gate_passed(correlation: object, threshold: object) -> Any: ...
def _build_tracking_stats(
    bt_stats: Any, per_column_stats: Mapping[str, Any] | None, era_config: Mapping[str, Any]
) -> Any: ...

# Vocabulary
def _is_function_store_registry(value: object) -> TypeGuard[FunctionStore]: ...
def _iter_synced_function_payloads(raw_vocabulary: Mapping[str, Any]) -> Iterator[_Payload]: ...
def _walk_synced_function_payloads(
    node: object, default_type: str, path: tuple[Any, ...]
) -> Iterator[_Payload]: ...
def _build_obfuscated_store(vocabulary_dict: Mapping[str, Any]) -> FunctionStore:
    """Build a FunctionStore keyed only by token/clear vocabulary names."""

def _runtime_vocabulary_freshness_state(guard: object) -> _FreshnessState: ...
def _is_vocabulary_artifact_path(path: object, named_universe: str | None = None) -> bool: ...
def _runtime_vocabulary_refreshed(
    before_state: _FreshnessState,
    after_state: _FreshnessState,
    named_universe: str | None = None,
) -> bool: ...
def _reload_runtime_vocabulary_after_freshness(named_universe: str | None = None) -> None: ...
def _load_runtime_shuffle_blob(data_dir: str | PathLike[str] | None) -> bytes: ...
def _validate_shuffle_blob(shuffle_blob: object) -> bytes: ...

# Transform stages and weights
def _stage_value(stage: Any, name: str, default: Any = None) -> Any: ...
def _resolved_stage_option(stage: Any, metaparameters: object) -> Any: ...
def _option_uses_rescale(option: object, option_config: object = None) -> bool: ...
def _pipeline_applies_rescale(
    transform_pipeline: Sequence[Any] | None, metaparameters: object
) -> bool: ...
def _empty_runtime_stage_data() -> Any: ...
def _finalize_rescaled_weights(weights: ArrayLike) -> NDArray[np.float64]: ...
def _install_finalized_weights(
    backtester: Any, graph: Any, metaparameters: Any, named_universe: Any, weights: Any
) -> None:
    """Best-effort update for adapters that cache evaluated weights internally."""

class _SimulationOrchestratorEvaluator:
    _delegate: EvaluatesByKeyword
    _extra_kwargs: dict[str, Any]

    def __init__(self, delegate: EvaluatesByKeyword, extra_kwargs: Mapping[str, Any]) -> None: ...
    def evaluate(self, **kwargs: Any) -> Any: ...

# Simulation options
def _universe_options(era_config: Any) -> list[UniverseOption]:
    """Build the universe-options list from a typed EraConfig."""

def _engine_definitions_from_agent_payload(
    source_era_config: dict[str, Any] | TypedEraConfig, typed_era_config: object
) -> dict[str, Any]: ...
def _plain_engine_definition_payload(value: Any) -> Any: ...
def _stage_attr(stage: Any, key: str, default: Any = None) -> Any: ...

"""A whole simulation in plain Python: the handle and the pipeline that its thread runs."""

import logging
import math
import os
import threading
import time
from dataclasses import dataclass

import plain
from quillstone import function_store
from quillstone._simulate_primitives import (
    canonicalize,
    resolve_metaparameters,
    resolve_metaparameters_per_pool,
)
from quillstone._threshold_gates import SCALAR_THRESHOLD_FIELDS, evaluate_threshold_gates
from quillstone._vault_init import vault_already_initialized_is_ready
from quillstone.errors import SdkRuntimeNotReadyError
from quillstone.functions._typed_shapes import FunctionGraphNode, StageData
from quillstone.search_tracking import BacktestStats
from quillstone.sync import EraError, SyncError

logger = logging.getLogger(__name__)

REQUIRED_KEYS = {"era_id", "rotations", "filtrations", "reductions", "features", "metadata"}
POOL_METRIC_THRESHOLDS = {"bypassed_thresholds": SCALAR_THRESHOLD_FIELDS}
SYNCING = "Syncing data from server..."
GATE_FAILURES = {
    "invalid_weights": "Selected pool structural backtest check failed",
    "thresholds": "Selected pool threshold check failed",
    "correlation": "Selected pool correlation threshold failed",
}


class Kit:
    """The collaborators, as wired by `wire`, and the sync that all simulations share."""

    sync_lock = threading.Lock()
    sync_event = threading.Event()
    sync_in_progress = False
    sync_error = None


kit = Kit()


def wire(**collaborators):
    vars(kit).update(collaborators)


class CancelledError(Exception):
    """The user has cancelled the simulation."""


@dataclass
class Status:
    phase: str = ""
    progress: float = 0.0
    message: str = ""
    era_id: int = 0
    elapsed_s: float = 0.0


@dataclass
class Result:
    stats: object = None
    factor_pnl: object = None
    per_column_stats: object = None
    portfolio_returns: object = None
    processed_weights: object = None
    pool_kind: object = None
    signal_pool_id: object = None
    strategy_pool_id: object = None
    is_correlation: object = None
    is_pnl_mi: object = None
    was_diagnostic_only: object = False
    failure_reason: object = None
    failure_detail: object = None
    passed: object = True
    structural_failed: object = False
    mi_score: object = None
    mi_passed: object = None
    rejection_reason: object = None
    expression_elapsed_seconds: object = None
    resolved_metaparameters: object = None


class OrchestratorEvaluator:
    def __init__(self, delegate, extra):
        self._delegate = delegate
        self._extra = dict(extra)

    def evaluate(self, **kwargs):
        return self._delegate.evaluate(**{**self._extra, **kwargs})


def simulate_signal(graph, named_universe=None, *, signal_pool_id=None, **options):
    return _simulate(graph, named_universe, "SIGNAL", signal_pool_id, **options)


def simulate_strategy(graph, named_universe=None, *, strategy_pool_id=None, **options):
    return _simulate(graph, named_universe, "STRATEGY", strategy_pool_id, **options)


def _simulate(graph, named_universe, expression_type, pool_id, **options):
    if not isinstance(graph, FunctionGraphNode):
        graph = FunctionGraphNode.from_raw(graph)
    plain.reject_aggregation(graph)
    universe = _resolve_universe(named_universe, expression_type, pool_id)
    return Handle(graph, universe, expression_type, pool_id, **options)


def _safe_universe(named_universe):
    text = "" if named_universe is None else str(named_universe).strip()
    if text in (".", "..") or "/" in text or "\\" in text or "\0" in text:
        raise ValueError(f"named_universe must be one path segment, got {named_universe!r}")
    return text or None


def _allowed_universes(pool):
    listed = pool.get("allowed_named_universes")
    if isinstance(listed, list):
        return [name for item in listed if (name := _safe_universe(item))]
    single = _safe_universe(pool.get("named_universe"))
    return [single] if single else []


def _resolve_universe(named_universe, expression_type, pool_id):
    if explicit := _safe_universe(named_universe):
        return explicit
    pools = [plain.select_pool(kit.era_config, expression_type, pool_id)]
    if expression_type == "STRATEGY":
        linked = pools[0]["signal_pool_name"]
        pools.append(plain.select_pool(kit.era_config, "SIGNAL", linked))
    for pool in pools + kit.era_config.get("signal_pools", []):
        if allowed := _allowed_universes(pool):
            return allowed[0]
    raise ValueError("named_universe is required")


class Handle:
    def __init__(
        self,
        graph,
        named_universe,
        expression_type,
        pool_id,
        metaparameters=None,
        include_correlation=True,
        include_mi=True,
        record=True,
        return_series=False,
        return_weights=False,
        fail_fast=True,
    ):
        if not isinstance(pool_id, str) or not pool_id:
            raise ValueError("the pool id must be a non-empty string")
        self._graph = graph
        self._named_universe = named_universe
        self._universe_rule_id = None
        self._expression_type = expression_type
        self._strategy = expression_type == "STRATEGY"
        self._pool_id = pool_id
        self._metaparameters = metaparameters
        self._include_correlation = include_correlation
        self._include_mi = include_mi
        self._record = record
        self._return_series = return_series
        self._return_weights = return_weights
        self._fail_fast = fail_fast

        self._config_era_id = (kit.era_config or {}).get("era_id", 0)
        self._lock = threading.Lock()
        self._status = Status(phase="syncing", message=SYNCING, era_id=self._config_era_id)
        self._result = None
        self._error = None
        self._cancelled = False
        self._start_time = time.monotonic()
        self._acquired = False
        self._pending_recording = None
        self._result_retrieved = False
        self._released = False
        self._done_event = threading.Event()
        self._acquire_done = threading.Event()
        self._post_acquire_gate = threading.Event()
        self._thread = threading.Thread(target=self._run, daemon=True)
        self._thread.start()
        self._acquire_done.wait(timeout=0.1)
        self._post_acquire_gate.set()

    def status(self):
        with self._lock:
            status = self._status
            return Status(
                phase=status.phase,
                progress=status.progress,
                message=status.message,
                era_id=status.era_id,
                elapsed_s=time.monotonic() - self._start_time,
            )

    def result(self):
        self._thread.join()
        with self._lock:
            if self._error is not None:
                self._release()
                raise self._error
            if self._pending_recording is not None:
                record, self._pending_recording = self._pending_recording, None
                if self._strategy:
                    kit.search_tracker.record_strategy_evaluation(**record)
                else:
                    kit.search_tracker.record_signal_evaluation(**record)
            self._result_retrieved = True
            self._release()
            return self._result

    def cancel(self):
        with self._lock:
            if self._status.phase == "cancelled" or self._result_retrieved:
                return
            self._cancelled = True
            self._pending_recording = None
            self._status = Status(
                phase="cancelled",
                message="Simulation cancelled by user.",
                era_id=self._status.era_id,
                elapsed_s=time.monotonic() - self._start_time,
            )
            self._error = CancelledError("Simulation cancelled")
            self._done_event.set()

    def _release(self):
        if self._acquired and not self._released:
            self._released = True
            kit.sync_manager.release()

    def _report(self, phase, message, progress=0.0):
        with self._lock:
            self._status = Status(
                phase=phase,
                progress=progress,
                message=message,
                era_id=self._status.era_id,
                elapsed_s=time.monotonic() - self._start_time,
            )
        if kit.set_phase is not None:
            try:
                kit.set_phase(phase)
            except Exception as error:
                logger.warning("Failed to set simulation phase '%s': %s", phase, error)

    def _check_cancelled(self):
        with self._lock:
            if self._cancelled:
                raise CancelledError("Simulation cancelled")

    def _run(self):
        try:
            self._run_phases()
        except CancelledError:
            self._report("cancelled", "Simulation cancelled by user.")
            with self._lock:
                self._error = CancelledError("Simulation cancelled")
        except Exception as error:
            self._report("error", f"Error: {error}")
            with self._lock:
                self._error = error
        finally:
            self._acquire_done.set()
            self._post_acquire_gate.set()
            self._done_event.set()

    def _run_phases(self):
        self._check_graph()
        wallet_secret = kit.auth.get_wallet_secret()
        era_id = self._sync()
        self._prepare(era_id, wallet_secret)
        era = self._resolve_era(era_id)
        pool, pool_name = self._select_pool(era)
        metaparameters = self._pool_metaparameters(era)
        elapsed = self._evaluate(era, pool_name, metaparameters)
        self._complete(era, pool, pool_name, metaparameters, elapsed)

    def _check_graph(self):
        if plain.has_filtration(self._graph) != self._strategy:
            wanted = "at least one" if self._strategy else "no"
            raise ValueError(f"a {self._expression_type} graph must hold {wanted} filtration node")
        self._check_cancelled()
        if kit.auth is None or kit.sync_manager is None:
            raise RuntimeError("Pipeline dependencies not initialized.")

    def _sync(self):
        self._report("syncing", SYNCING)
        self._check_cancelled()
        kit.sync_manager.acquire()
        with self._lock:
            self._acquired = True
        self._acquire_done.set()
        self._post_acquire_gate.wait(timeout=5.0)
        total = getattr(kit.sync_manager, "total_bytes", 0)
        if total > 0:
            done = getattr(kit.sync_manager, "bytes_downloaded", 0)
            message = f"Syncing data... {done}/{total} bytes downloaded"
            self._report("syncing", message, done / total)
        else:
            self._report("syncing", SYNCING)
        self._check_cancelled()
        self._share_sync()
        era_id = self._synced_era_id(kit.sync_manager.get_manifest())
        with self._lock:
            self._status.era_id = era_id
        return era_id

    def _share_sync(self):
        with kit.sync_lock:
            leads = not kit.sync_in_progress
            if leads:
                kit.sync_in_progress = True
                kit.sync_error = None
                kit.sync_event.clear()
        if not leads:
            if not kit.sync_event.wait(timeout=30.0):
                raise SyncError("Timed out waiting for simulation data sync to complete")
            with kit.sync_lock:
                if kit.sync_error is not None:
                    raise kit.sync_error
            return
        error = None
        try:
            kit.sync_manager.request_for_sync()
        except Exception as failure:
            error = failure
            raise
        finally:
            with kit.sync_lock:
                kit.sync_error = error
                kit.sync_in_progress = False
                kit.sync_event.set()

    @staticmethod
    def _synced_era_id(manifest):
        if isinstance(manifest, dict):
            value = manifest.get("era_id")
        else:
            value = getattr(manifest, "era_id", None)
        try:
            era_id = None if value is None or isinstance(value, bool) else int(value)
        except (TypeError, ValueError):
            era_id = None
        if era_id is None or era_id < 0:
            raise SdkRuntimeNotReadyError()
        return era_id

    def _prepare(self, era_id, wallet_secret):
        message = f"Initializing vault and loading vocabulary for era {era_id}..."
        self._report("initializing", message)
        self._check_cancelled()
        if kit.vault is None:
            raise RuntimeError("Vault runtime is required for simulation.")
        data_dir = kit.sync_manager._data_dir
        with open(os.path.join(data_dir, "shuffle_seed.enc"), "rb") as file:
            seed = file.read()
        if len(seed) != 60:
            raise ValueError(f"Shuffle seed must be 60 bytes, got {len(seed)}")
        protection = {"shuffle_blob": seed, "wallet_secret": wallet_secret, "era_id": era_id}
        initialize = getattr(kit.backtester, "initialize_era_vault", None)
        if initialize is not None:
            initialize(**protection)
        try:
            kit.vault.init_if_needed(**protection)
        except Exception as error:
            if not vault_already_initialized_is_ready(kit.vault, error):
                raise
        self._load_vocabulary(era_id)
        kit.backtester.init_reconstruction(**protection)
        self._check_cancelled()

    @staticmethod
    def _load_vocabulary(era_id):
        if kit.load_vocabulary is not None:
            raw = kit.load_vocabulary(era_id)
            if not isinstance(raw, dict) or not raw:
                raise ValueError("load_vocabulary returned empty or invalid vocabulary")
            missing = REQUIRED_KEYS - raw.keys()
            if missing:
                raise ValueError(f"Vocabulary missing required keys: {missing}")
            kit.vocabulary_raw = raw
            if not isinstance(kit.vocabulary, function_store.FunctionStore):
                kit.vocabulary = plain.build_store(raw)
        if kit.vocabulary is None:
            raise RuntimeError("Vocabulary is required for simulation.")

    def _resolve_era(self, era_id):
        era = dict(kit.era_config)
        if era["era_id"] != era_id:
            raise EraError(
                f"Synced era_id={era_id} does not match era_config era_id={era['era_id']}"
            )
        if era.get("transform_pipeline") is None:
            raise SdkRuntimeNotReadyError("missing required era config field: transform_pipeline")
        rule = (era.get("universe_rules") or {}).get(self._named_universe)
        rule_id = rule.get("rule_id") if isinstance(rule, dict) else None
        self._universe_rule_id = plain.coerce_rule_id(rule_id)
        if self._universe_rule_id is None:
            raise ValueError(f"Unknown named_universe '{self._named_universe}'")
        return era

    def _select_pool(self, era):
        kit.graph_validator.validate(self._graph, self._expression_type)
        if self._strategy and not (kit.useful_signals and kit.useful_signal_pool):
            raise ValueError("No useful signals match the filtration criteria.")
        pool = plain.select_pool(era, self._expression_type, self._pool_id)
        allowed = _allowed_universes(pool)
        if allowed and self._named_universe not in allowed:
            raise ValueError(f"named_universe '{self._named_universe}' is not in {allowed}")
        if self._strategy:
            for ref in kit.useful_signals:
                metadata = plain.metadata_for(ref, kit.useful_signal_metadata) or {}
                linked = metadata.get("signal_pool_id")
                if linked and linked != pool["signal_pool_name"]:
                    raise ValueError(f"useful signal '{ref}' belongs to signal pool '{linked}'")
        kind = "strategy" if self._strategy else "signal"
        name = pool.get(f"{kind}_pool_name") or pool.get(f"{kind}_pool_id")
        return pool, name or pool.get("name") or pool["pool_id"]

    def _pool_metaparameters(self, era):
        requested = self._metaparameters
        stages = era["transform_pipeline"]
        if any(plain.stage_value(stage, "per_pool_default") for stage in stages):
            requested = resolve_metaparameters(requested, stages)
        by_pool = resolve_metaparameters_per_pool(requested, [self._pool_id])
        return canonicalize(by_pool).get(self._pool_id, {})

    def _evaluate(self, era, pool_name, metaparameters):
        self._report("evaluating", "Evaluating expression... batch 0/?")
        self._check_cancelled()
        backtester = kit.backtester
        try:
            manifest = kit.sync_manager.get_manifest()
        except Exception:
            manifest = None
        shared = {
            "search_plan": None,
            "feature_dir": getattr(kit.sync_manager, "feature_dir", None),
            "signal_dir": kit.signal_dir,
            "manifest": manifest,
        }
        orchestrator = kit.batch_orchestrator
        if orchestrator is not None and kit.compute_search_plan is not None:
            shared["search_plan"] = kit.compute_search_plan(
                self._graph, self._expression_type, requested_n_jobs=1
            )
        previous_evaluator = backtester.evaluator
        previous_factory = backtester.search_plan_factory
        backtester.evaluator = OrchestratorEvaluator(previous_evaluator, shared)
        backtester.search_plan_factory = lambda *args, **kwargs: shared["search_plan"]
        try:
            self._check_cancelled()
            if orchestrator is None:
                started = time.monotonic()
                output = backtester.evaluate_expression(
                    self._graph, metaparameters=metaparameters, named_universe=self._named_universe
                )
            else:
                keywords = self._evaluation_keywords(era, metaparameters)
                started = time.monotonic()
                output = orchestrator.evaluate(**keywords, **shared)
        finally:
            backtester.evaluator = previous_evaluator
            backtester.search_plan_factory = previous_factory
        per_pool = getattr(output, "per_pool_weights", None)
        weights = per_pool.get(pool_name) if isinstance(per_pool, dict) else output.weights
        if plain.applies_rescale(era["transform_pipeline"], metaparameters):
            backtester._last_weights = plain.finalize_weights(weights)
        return time.monotonic() - started

    def _evaluation_keywords(self, era, metaparameters):
        rule_ids = {}
        if self._strategy:
            for ref in kit.useful_signals:
                metadata = plain.metadata_for(ref, kit.useful_signal_metadata) or {}
                if metadata.get("universe_rule_id") is not None:
                    rule_ids[ref] = metadata["universe_rule_id"]
        return {
            "graph": self._graph,
            "expression_type": self._expression_type,
            "registry": kit.vocabulary,
            "useful_signals": kit.useful_signals or {},
            "universe": kit.vault.universe_mask(self._named_universe),
            "metaparameters": metaparameters,
            "transform_pipeline": era["transform_pipeline"],
            "stage_data": StageData(),
            "column_labels": era["column_labels"],
            "signal_universe_rule_ids": rule_ids,
            "backtester": kit.backtester,
        }

    def _complete(self, era, pool, pool_name, metaparameters, elapsed):
        self._report("backtesting", "Backtesting signal against thresholds...")
        self._check_cancelled()
        output = kit.backtester.run_backtest(
            self._graph,
            metaparameters=metaparameters,
            named_universe=self._named_universe,
            return_series=self._return_series,
            return_weights=self._return_weights,
        )
        self._check_cancelled()
        gates = self._gate(era, pool, pool_name, output)
        current = kit.era_thread.get_current_era_id()
        self._check_cancelled()
        if current != self._config_era_id:
            raise EraError(f"Era changed during simulation: {self._config_era_id} to {current}")
        self._check_cancelled()
        pools = {"signal_pool_id": pool["signal_pool_name"] if self._strategy else self._pool_id}
        if self._strategy:
            pools = {"strategy_pool_id": self._pool_id, **pools}
        if self._record:
            self._keep_record(era, pool, metaparameters, elapsed, output, gates, pools)
        self._report("complete", "Simulation complete. Results available.", 1.0)
        result = Result(
            stats=output.stats,
            factor_pnl=output.factor_pnl,
            per_column_stats=output.per_column_stats,
            portfolio_returns=getattr(output, "portfolio_returns", None),
            processed_weights=getattr(output, "processed_weights", None),
            pool_kind="strategy" if self._strategy else "signal",
            **pools,
            **gates,
            expression_elapsed_seconds=elapsed,
            resolved_metaparameters=metaparameters,
        )
        with self._lock:
            if self._cancelled:
                raise CancelledError("Simulation cancelled")
            self._result = result

    def _gate(self, era, pool, pool_name, output):
        found = list(dict.fromkeys(output.found_signal_ids or ()))
        pnl = self._load_pnl(found, pool_name)
        thresholds = pool.get("universes", {}).get(self._universe_rule_id, {})
        structural_failed = bool(getattr(output, "structural_failed", False))
        passed = not structural_failed
        if passed or not self._fail_fast:
            passed = self._metrics_pass(era, output, thresholds) and passed
        correlation, correlation_passed = 0.0, True
        if self._include_correlation:
            limit = self._threshold(pool, thresholds, "is_correlation_threshold")
            if pnl and (passed or not self._fail_fast):
                correlation = kit.correlate_per_pool(
                    pool_name=pool_name,
                    pnl_arrays=pnl,
                    pnl_column=era.get("correlation_pnl_column") or self._primary_column(era),
                    threshold=limit,
                )
                correlation_passed = self._pool_gate("is_correlation", correlation, limit)
        sound = passed and correlation_passed
        mi_limit = mi_score = mi_passed = None
        if self._include_mi and (sound or not self._fail_fast):
            mi_limit, mi_score, mi_passed = self._improvement(
                era, pool, pool_name, thresholds, found
            )
        reason, detail = None, None
        if structural_failed:
            reason = "invalid_weights"
        elif not passed:
            reason = "thresholds"
        elif not correlation_passed:
            reason = "correlation"
        elif mi_passed is False:
            reason = "pnl_mi"
            outcome = "computation unavailable" if mi_score is None else "threshold failed"
            detail = f"Selected pool PnL MI {outcome}"
        return {
            "is_correlation": correlation,
            "is_pnl_mi": mi_limit,
            "was_diagnostic_only": not sound and not self._fail_fast,
            "failure_reason": reason,
            "failure_detail": detail or GATE_FAILURES.get(reason),
            "passed": passed,
            "structural_failed": structural_failed,
            "mi_score": mi_score,
            "mi_passed": mi_passed,
        }

    def _load_pnl(self, found, pool_name):
        if not self._include_correlation:
            return []
        pnl = [kit.load_found_signal_pnl(name, pool_name=pool_name) for name in found]
        missing = [name for name, array in zip(found, pnl, strict=True) if array is None]
        if missing:
            raise ValueError(f"Signal PnL data is missing for: {', '.join(missing)}")
        return pnl

    @staticmethod
    def _primary_column(era):
        columns = era.get("evaluation_pnl_columns")
        if not columns:
            raise SdkRuntimeNotReadyError("evaluation_pnl_columns")
        return columns[0]

    @staticmethod
    def _threshold(pool, thresholds, field):
        limit = pool.get(field)
        limit = thresholds.get(field) if limit is None else limit
        if limit is None:
            raise ValueError(f"era config selected pool missing required {field}")
        return limit

    @staticmethod
    def _pool_gate(metric, value, limit):
        return evaluate_threshold_gates(
            metrics={metric: value},
            threshold_set=POOL_METRIC_THRESHOLDS,
            pool_thresholds={f"{metric}_threshold": limit},
        ).passed

    def _metrics_pass(self, era, output, thresholds):
        stats, columns = output.stats, output.per_column_stats or {}
        turnover = getattr(stats, "turnover", None)
        if turnover is None:
            turnover = getattr(stats, "avg_turnover", 0.0)
        metrics = {
            "sharpe": columns.get(f"{self._primary_column(era)}_sharpe", 0.0),
            "turnover": turnover,
            "delta_exposure": getattr(stats, "delta_exposure", 0.0),
            "max_weight": getattr(stats, "max_weight", 0.0),
            "abs_weight_sum_mean": getattr(stats, "abs_weight_sum_mean", 0.0),
        }
        kind = "strategy" if self._strategy else "signal"
        return evaluate_threshold_gates(
            metrics={name: plain.tracking_metric(value) for name, value in metrics.items()},
            threshold_set=thresholds.get(f"{kind}_is_thresholds", {}),
        ).passed

    def _improvement(self, era, pool, pool_name, thresholds, found):
        self._report("computing_mi", "Computing marginal improvement score...")
        self._check_cancelled()
        field = "strategy_is_pnl_mi_threshold" if self._strategy else "is_pnl_mi_threshold"
        limit = self._threshold(pool, thresholds, field)
        known = kit.found_signal_pool or {}
        signals = {name: known[name] for name in found if name in known}
        if not signals:
            return limit, math.inf, self._pool_gate("is_pnl_mi", math.inf, limit)
        score, _ = kit.compute_mi_per_pool(
            pool_name=pool_name,
            pnl_column=era.get("mi_pnl_column") or self._primary_column(era),
            pool_signals=signals,
            threshold=limit,
        )
        if type(score) not in (int, float) or not math.isfinite(score):
            logger.warning("mi_computation_unavailable", extra={"pool": pool_name})
            return limit, None, False
        return limit, score, self._pool_gate("is_pnl_mi", score, limit)

    def _keep_record(self, era, pool, metaparameters, elapsed, output, gates, pools):
        record = {
            "source": "simulate",
            "graph": self._graph,
            "named_universe": self._named_universe,
            "era_id": self._status.era_id,
            "passed_thresholds": gates["passed"],
            "rejection_reason": gates["failure_detail"] or gates["failure_reason"],
            "expression_elapsed_seconds": elapsed,
            "stats": self._tracking_stats(era, output),
            "metaparameters": metaparameters,
            "per_column_stats": output.per_column_stats,
            **pools,
        }
        if self._strategy:
            labels = []
            for ref in kit.useful_signals:
                metadata = plain.metadata_for(ref, kit.useful_signal_metadata) or {}
                keys = (metadata.get(key) for key in plain.IDENTIFIER_KEYS)
                labels.append(str(next(filter(None, keys), ref)))
            record["referenced_signal_ids"] = labels
        with self._lock:
            if self._cancelled:
                raise CancelledError("Simulation cancelled")
            self._pending_recording = record

    def _tracking_stats(self, era, output):
        column = self._primary_column(era)
        stats, columns = output.stats, output.per_column_stats or {}
        metric = plain.tracking_metric
        return BacktestStats(
            sharpe=metric(columns.get(f"{column}_sharpe", 0.0)),
            returns=metric(columns.get(f"{column}_returns", 0.0)),
            turnover=metric(stats.avg_turnover),
            drawdown=metric(columns.get(f"{column}_drawdown", 0.0)),
            delta_exposure=metric(stats.delta_exposure),
            max_weight=metric(stats.max_weight),
            quality_score=metric(columns.get(f"{column}_quality_score", 0.0)),
            correlation=0.0,
            liquidity_metrics=dict(stats.liquidity_metrics or {}),
            custom_stats=dict(stats.custom_stats or {}),
        )

"""Signals and strategies found so far, and how a new one compares with them."""

from __future__ import annotations

import json
import logging
import math
import os
import threading
from collections.abc import Callable, Iterable, Mapping
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

import numpy as np

from quillstone.simulator_engine.pnl_comparison import correlation, information_shares
from quillstone.simulator_engine.pnl_statistics import PNL_DTYPE, PnlTable
from quillstone.simulator_engine.signal_files import (
    METADATA,
    PNL,
    WEIGHTS,
    signal_file,
    write_atomically,
)

logger = logging.getLogger(__name__)


@dataclass(frozen=True)
class FoundSignal:
    """A signal or strategy that was accepted into a pool.

    ``pnl`` is its daily PnL as stored: structured [days] with "date" and the PnL columns.
    """

    signal_id: str
    pool: str
    pnl: np.ndarray = field(repr=False, compare=False)
    metadata: dict[str, Any] = field(repr=False, compare=False)

    @property
    def expression_type(self) -> str:
        """The kind of its expression, "SIGNAL" or "STRATEGY"."""
        return self.metadata.get("expression_type", "SIGNAL")


class FoundSignalStore:
    """Keeps found signals in a directory; threads may share one store.

    ``found_signal_pool`` maps the id of every found signal to it and grows as signals are
    accepted. A candidate is the backtest that the calling thread ran last, which ``last_output``
    gives (a backtester puts itself there).
    """

    def __init__(
        self,
        signal_dir: str | os.PathLike[str],
        *,
        last_output: Callable[[], Any] | None = None,
    ) -> None:
        self.signal_dir = Path(signal_dir)
        self.last_output = last_output
        self.found_signal_pool: dict[str, FoundSignal] = {}
        self._lock = threading.Lock()
        for path in sorted(self.signal_dir.glob(f"[!.]*{METADATA}")):
            signal_id = path.name.removesuffix(METADATA)
            try:
                self.found_signal_pool[signal_id] = self._read(signal_id)
            except Exception as error:
                # One damaged signal must not keep a session from starting.
                logger.warning("found signal %s cannot be read and is left out: %s", path, error)

    def found_ids(
        self, expression_type: str | None = None, named_universe: str | None = None
    ) -> list[str]:
        """Ids in the order of acceptance, of one kind of expression and universe or of all."""
        return [s.signal_id for s in self._found(expression_type, named_universe)]

    def rivals(self, run: Any) -> list[str]:
        """Ids that a run has to differ from: its kind and universe, never the very same graph."""
        return [
            signal.signal_id
            for signal in self._found(run.expression_type, run.named_universe)
            if signal.metadata.get("graph_hash") != run.graph_hash
        ]

    def load(self, signal_id: str, pool_name: str | None = None) -> np.ndarray | None:
        """Daily PnL of a found signal, structured [days]; None when there is no such signal.

        A signal of another pool than ``pool_name`` gives an array without days: it is known, but
        nothing in that pool is compared with it.
        """
        signal = self.found_signal_pool.get(signal_id)
        if signal is None:
            return None
        return signal.pnl if pool_name in (None, signal.pool) else signal.pnl[:0]

    def correlate_per_pool(
        self,
        *,
        pool_name: str,
        pnl_arrays: Iterable[np.ndarray],
        pnl_column: str,
        threshold: float | None = None,
    ) -> float:
        """Highest absolute correlation of the candidate's daily PnL with any of the arrays."""
        candidate = self._candidate()
        return max(
            (abs(correlation(candidate, pnl, pnl_column)) for pnl in pnl_arrays), default=0.0
        )

    def compute_mi_per_pool(
        self,
        *,
        pool_name: str,
        pnl_column: str,
        pool_signals: Mapping[str, FoundSignal],
        threshold: float | None = None,
    ) -> tuple[float, dict[str, Any]]:
        """What the candidate's PnL adds beyond the pool's: 1 is all new, 0 a mere copy.

        The score is one less the greatest share of information that the candidate has in common
        with a member of the pool, or with the mean of them all (`information_shares`); a gate
        asks that it be at least its threshold. The second value tells the shares by member.

        A pool without members leaves an infinite score, too few common days a NaN.
        """
        members = {
            signal_id: signal.pnl
            for signal_id, signal in pool_signals.items()
            if signal.pool == pool_name
        }
        if not members:
            return math.inf, {}
        shares = information_shares(self._candidate(), members, pnl_column)
        if not shares:
            return math.nan, {}
        return 1.0 - max(shares.values()), shares

    def accept(
        self,
        signal_id: str,
        pool: str,
        weights: np.ndarray,
        pnl: PnlTable,
        metadata: Mapping[str, Any],
    ) -> None:
        """Keep a signal: its weights [days x tickers], PnL and metadata, replacing one of its id.

        ``metadata`` is stored as JSON; "expression_type", "graph_hash" and "named_universe" decide
        what the signal is compared with, "sharpe" and "turnover" are what filtrations judge.
        """
        if pnl.array.dtype != PNL_DTYPE or len(pnl) != len(weights):
            raise ValueError("PnL and weights of a found signal must cover the same days")
        stored = {**metadata, "pool": pool}
        text = json.dumps(stored, indent=1, sort_keys=True).encode()
        weights = np.ascontiguousarray(weights, dtype=np.float64)
        array = pnl.array.copy()
        array.setflags(write=False)
        with self._lock:
            self._write(signal_id, WEIGHTS, lambda file: np.save(file, weights))
            self._write(signal_id, PNL, lambda file: np.savez(file, pnl=array))
            self._write(signal_id, METADATA, lambda file: file.write(text))
            signal = FoundSignal(signal_id, pool, array, json.loads(text))
            self.found_signal_pool[signal_id] = signal

    def _found(self, expression_type: str | None, named_universe: str | None) -> list[FoundSignal]:
        """Signals of a kind and universe whose files are there.

        The sync sets the files aside when other prices come, whose days are not theirs; what they
        held must not be compared with anything any more, however long ago it was read.
        """
        with self._lock:
            for signal_id in tuple(self.found_signal_pool):
                if not signal_file(self.signal_dir, signal_id, METADATA).exists():
                    del self.found_signal_pool[signal_id]
            return [
                signal
                for signal in self.found_signal_pool.values()
                if expression_type in (None, signal.expression_type)
                and named_universe in (None, signal.metadata.get("named_universe"))
            ]

    def _write(self, signal_id: str, suffix: str, write: Callable[[Any], object]) -> None:
        write_atomically(signal_file(self.signal_dir, signal_id, suffix), write)

    def _read(self, signal_id: str) -> FoundSignal:
        metadata = json.loads(
            signal_file(self.signal_dir, signal_id, METADATA).read_text(encoding="utf-8")
        )
        with np.load(signal_file(self.signal_dir, signal_id, PNL)) as stored:
            pnl = stored["pnl"]
        pnl.setflags(write=False)
        return FoundSignal(signal_id, metadata["pool"], pnl, metadata)

    def _candidate(self) -> np.ndarray:
        output = self.last_output() if self.last_output is not None else None
        if output is None:
            raise RuntimeError("no backtest has run on this thread: nothing to compare")
        return output.factor_pnl.array

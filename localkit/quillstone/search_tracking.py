"""The search tracker: every recorded evaluation is a row of a SQLite file."""

from __future__ import annotations

import hashlib
import json
import os
import sqlite3
import threading
import time
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

__all__ = ["BacktestStats", "SearchTracker"]

_SCHEMA = """
CREATE TABLE IF NOT EXISTS evaluations (
    id INTEGER PRIMARY KEY,
    recorded_at REAL NOT NULL,           -- seconds since 1970, UTC
    kind TEXT NOT NULL,                  -- signal | strategy
    source TEXT NOT NULL,
    graph TEXT NOT NULL,                 -- JSON
    graph_hash TEXT NOT NULL,
    named_universe TEXT NOT NULL,
    era_id INTEGER NOT NULL,
    passed_thresholds INTEGER NOT NULL,
    rejection_reason TEXT,               -- NULL: every gate passed
    expression_elapsed_seconds REAL,
    sharpe REAL, returns REAL, turnover REAL, drawdown REAL, delta_exposure REAL,
    max_weight REAL, quality_score REAL, correlation REAL,
    liquidity_metrics TEXT, custom_stats TEXT, metaparameters TEXT, per_column_stats TEXT,  -- JSON
    signal_pool_id TEXT,
    strategy_pool_id TEXT,
    referenced_signal_ids TEXT           -- JSON
);
CREATE INDEX IF NOT EXISTS evaluations_by_graph ON evaluations (graph_hash);
"""


@dataclass
class BacktestStats:
    """Statistics of one evaluation as the tracker keeps them.

    Attributes:
        sharpe: Annualised Sharpe ratio of the primary PnL column.
        returns: Its annualised mean return, 0.1 is 10 %.
        turnover: Mean share of the book traded per day.
        drawdown: Largest fall from a peak of the cumulative PnL.
        delta_exposure: Mean absolute net exposure, a share of the book.
        max_weight: Largest absolute weight.
        quality_score: Score of the primary PnL column.
        correlation: Correlation with found signals.
        liquidity_metrics: Further figures about trading.
        custom_stats: Any other figures.
    """

    sharpe: float = 0.0
    returns: float = 0.0
    turnover: float = 0.0
    drawdown: float = 0.0
    delta_exposure: float = 0.0
    max_weight: float = 0.0
    quality_score: float = 0.0
    correlation: float = 0.0
    liquidity_metrics: dict[str, Any] = field(default_factory=dict)
    custom_stats: dict[str, Any] = field(default_factory=dict)


class SearchTracker:
    """Records evaluations and reads them back; any number of threads may share one.

    Args:
        database: The SQLite file; made on first use.
    """

    def __init__(self, database: str | os.PathLike[str]) -> None:
        self.path = Path(database)
        self.path.parent.mkdir(parents=True, exist_ok=True)
        self._lock = threading.Lock()
        self._connection = sqlite3.connect(self.path, timeout=30.0, check_same_thread=False)
        self._connection.row_factory = sqlite3.Row
        self._connection.executescript(_SCHEMA)

    def close(self) -> None:
        """Close the file; recorded rows are on disk already."""
        with self._lock:
            self._connection.close()

    def record_signal_evaluation(
        self,
        *,
        source: str,
        graph: Any,
        named_universe: str,
        era_id: int,
        passed_thresholds: bool,
        rejection_reason: str | None,
        expression_elapsed_seconds: float | None,
        stats: BacktestStats,
        metaparameters: Mapping[str, Any] | None,
        per_column_stats: Mapping[str, Any] | None,
        signal_pool_id: str | None,
    ) -> int:
        """Write the evaluation of a signal as one row; return the row's id."""
        values = {key: value for key, value in locals().items() if key != "self"}
        return self._record("signal", values)

    def record_strategy_evaluation(
        self,
        *,
        source: str,
        graph: Any,
        named_universe: str,
        era_id: int,
        passed_thresholds: bool,
        rejection_reason: str | None,
        expression_elapsed_seconds: float | None,
        stats: BacktestStats,
        metaparameters: Mapping[str, Any] | None,
        per_column_stats: Mapping[str, Any] | None,
        strategy_pool_id: str | None,
        signal_pool_id: str | None,
        referenced_signal_ids: Sequence[str],
    ) -> int:
        """Write the evaluation of a strategy as one row; return the row's id."""
        values = {key: value for key, value in locals().items() if key != "self"}
        return self._record("strategy", values)

    def evaluations(self, since_id: int = 0) -> list[dict[str, Any]]:
        """Return the rows after `since_id`, oldest first; JSON columns are decoded."""
        return self._select("id > ?", [since_id])

    def useful_signals(
        self,
        *,
        signal_pool_id: str,
        named_universe: str,
        era_id: int,
        graph_hashes: Iterable[str] | None = None,
    ) -> list[dict[str, Any]]:
        """Return the rows of signals that passed every gate, the newest row of each graph.

        Args:
            signal_pool_id: Only signals of this pool.
            named_universe: Only signals of this universe.
            era_id: Only signals of this era.
            graph_hashes: Only these graphs, for example those whose weights are kept.
        """
        rows = self._select(
            "id IN (SELECT max(id) FROM evaluations WHERE kind = 'signal' "
            "AND signal_pool_id = ? AND named_universe = ? AND era_id = ? GROUP BY graph_hash) "
            "AND passed_thresholds AND rejection_reason IS NULL",
            [signal_pool_id, named_universe, era_id],
        )
        wanted = None if graph_hashes is None else set(graph_hashes)
        return [row for row in rows if wanted is None or row["graph_hash"] in wanted]

    def last_id(self) -> int:
        """Return the id of the newest row, 0 when there is none."""
        with self._lock:
            (newest,) = self._connection.execute("SELECT max(id) FROM evaluations").fetchone()
        return newest or 0

    def _record(self, kind: str, record: dict[str, Any]) -> int:
        stats: BacktestStats = record.pop("stats")
        graph = record.pop("graph")
        text = _graph_text(graph)
        row = {
            "recorded_at": time.time(),
            "kind": kind,
            "graph": text,
            "graph_hash": getattr(graph, "graph_hash", None) or _sha256(text),
            **{key: _plain(value) for key, value in record.items()},
            **{key: _plain(value) for key, value in vars(stats).items() if key in _STATS},
        }
        names, marks = ", ".join(row), ", ".join("?" * len(row))
        with self._lock, self._connection:
            cursor = self._connection.execute(
                f"INSERT INTO evaluations ({names}) VALUES ({marks})", list(row.values())
            )
        return int(cursor.lastrowid or 0)

    def _select(self, condition: str, values: list[Any]) -> list[dict[str, Any]]:
        with self._lock:
            rows = self._connection.execute(
                f"SELECT * FROM evaluations WHERE {condition} ORDER BY id", values
            ).fetchall()
        return [{key: _decoded(key, value) for key, value in dict(row).items()} for row in rows]


_STATS = frozenset(BacktestStats.__dataclass_fields__)
_JSON = frozenset(
    (
        "graph",
        "liquidity_metrics",
        "custom_stats",
        "metaparameters",
        "per_column_stats",
        "referenced_signal_ids",
    )
)


def _graph_text(graph: Any) -> str:
    """The graph's dictionary form as JSON."""
    to_dict = getattr(graph, "to_dict", None)
    return json.dumps(to_dict() if callable(to_dict) else graph, default=_json_default)


def _sha256(text: str) -> str:
    return hashlib.sha256(text.encode()).hexdigest()


def _plain(value: Any) -> Any:
    """A value that SQLite stores: numbers, text and None as they are, the rest as JSON."""
    if value is None or isinstance(value, bool | int | float | str):
        return value
    if isinstance(value, Mapping | Sequence):
        return json.dumps(value, default=_json_default)
    return _json_default(value)


def _json_default(value: Any) -> Any:
    """Mappings, tuples and NumPy's numbers and arrays as JSON has them; anything else as text."""
    if isinstance(value, Mapping):
        return dict(value)
    convert = getattr(value, "tolist", None)
    return convert() if callable(convert) else str(value)


def _decoded(key: str, value: Any) -> Any:
    if key == "passed_thresholds":
        return bool(value)
    return json.loads(value) if key in _JSON and value is not None else value

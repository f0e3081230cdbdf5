"""Notices artifacts that changed on disk while the process runs, and has them read again."""

from __future__ import annotations

import hashlib
import json
import os
import threading
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from pathlib import Path
from typing import Any

from quillstone.obfuscation import check_vocabulary

__all__ = ["FreshnessSnapshot", "LocalFreshnessGuard", "VocabularyListener"]

VocabularyListener = Callable[[dict[str, Any]], None]


@dataclass(frozen=True)
class FreshnessSnapshot:
    """What is on disk against what is in use, both from artifact path to SHA-256.

    Attributes:
        pending_data_artifact_shas: On disk with this content, which is not in use yet.
        loaded_data_artifact_shas: In use with this content.
    """

    pending_data_artifact_shas: dict[str, str] = field(default_factory=dict)
    loaded_data_artifact_shas: dict[str, str] = field(default_factory=dict)


class LocalFreshnessGuard:
    """Keeps what is in use in step with the artifacts of one universe.

    An artifact becomes pending when its content differs from the one in use. The sync tells of
    new artifacts; the vocabulary, which people edit while a session runs, is besides looked at
    whenever a snapshot is taken. Features and vocabulary are taken into use before an evaluation,
    market data before a backtest.

    Args:
        data_dir: The synced data directory.
        named_universe: The universe whose artifacts are watched.
    """

    def __init__(self, data_dir: str | os.PathLike[str], named_universe: str) -> None:
        self._universe = named_universe
        self._vocabulary_path = f"{named_universe}/vocabulary.json"
        self._vocabulary_file = Path(data_dir) / self._vocabulary_path
        self._lock = threading.Lock()
        self._synced: dict[str, str] = {}
        self._loaded: dict[str, str] = {}
        self._vocabulary_stamp: tuple[int, int, int] | None = None
        self._consumers: dict[str, tuple[object, str]] = {}
        self._listeners: list[VocabularyListener] = []

    @property
    def snapshot(self) -> FreshnessSnapshot:
        """The state at this moment; later changes do not alter it."""
        self.notice()
        with self._lock:
            return FreshnessSnapshot(self._pending(), dict(self._loaded))

    def register_module_consumer(self, name: str, obj: object, attribute: str) -> None:
        """Have `obj.attribute`, which holds opened data, set to None when the data were replaced.

        The consumer opens them again at its next use. A second consumer of a name replaces the
        first.
        """
        with self._lock:
            self._consumers[name] = (obj, attribute)

    def add_vocabulary_listener(self, listener: VocabularyListener) -> None:
        """Have `listener(raw_vocabulary)` called as soon as a changed vocabulary is noticed.

        Graphs are validated before they are evaluated, so whoever validates by the vocabulary
        needs the new one earlier than the evaluation does.
        """
        with self._lock:
            self._listeners.append(listener)

    def notice(self, artifacts: Mapping[str, Mapping[str, Any]] | None = None) -> None:
        """Look for changes: those that a sync reports, and the vocabulary file.

        Args:
            artifacts: The manifest's "artifacts" after a sync.
        """
        with self._lock:
            for path, entry in (artifacts or {}).items():
                if path.startswith(f"{self._universe}/") and path != self._vocabulary_path:
                    self._synced[path] = entry["sha256"]
            vocabulary = self._changed_vocabulary()
            listeners = list(self._listeners) if vocabulary is not None else []
        for listener in listeners:
            listener(vocabulary or {})

    def ensure_fresh_before_evaluation(self, named_universe: str | None = None) -> None:
        """Take pending features and the pending vocabulary into use."""
        self._take_into_use(named_universe, market=False)

    def ensure_fresh_before_backtest(self, named_universe: str | None = None) -> None:
        """Take pending market data into use."""
        self._take_into_use(named_universe, market=True)

    # All below run under the lock, or take it.

    def _pending(self) -> dict[str, str]:
        return {p: sha for p, sha in self._synced.items() if self._loaded.get(p) != sha}

    def _take_into_use(self, named_universe: str | None, *, market: bool) -> None:
        if named_universe not in (None, self._universe):
            return
        with self._lock:
            prefix = f"{self._universe}/market/"
            taken = {p: s for p, s in self._pending().items() if p.startswith(prefix) == market}
            replaced = any(path != self._vocabulary_path for path in taken)
            consumers = list(self._consumers.values()) if replaced else []
            self._loaded.update(taken)
        for obj, attribute in consumers:
            setattr(obj, attribute, None)

    def _changed_vocabulary(self) -> dict[str, Any] | None:
        """The vocabulary when its content is new; a file that is being written, or bad, waits."""
        try:
            status = self._vocabulary_file.stat()
            stamp = (status.st_mtime_ns, status.st_size, status.st_ino)
            if stamp == self._vocabulary_stamp:
                return None
            content = self._vocabulary_file.read_bytes()
            vocabulary = check_vocabulary(json.loads(content))
        except (OSError, ValueError):
            return None
        self._vocabulary_stamp = stamp
        sha256 = hashlib.sha256(content).hexdigest()
        if self._synced.get(self._vocabulary_path) == sha256:
            return None
        self._synced[self._vocabulary_path] = sha256
        return vocabulary

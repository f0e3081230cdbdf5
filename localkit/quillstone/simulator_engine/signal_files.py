"""The files of an accepted signal, and reading a useful one back for a strategy.

A signal leaves three files in the signal directory: ``<id>.weights.npy`` (float64 [days x
tickers]), ``<id>.pnl.npz`` (its PnL, see `PnlTable`) and ``<id>.meta.json``. The last is written
last: a signal without it does not exist.
"""

from __future__ import annotations

import json
import os
import tempfile
from collections.abc import Callable
from functools import cached_property
from pathlib import Path
from typing import Any, BinaryIO

import numpy as np

WEIGHTS, PNL, METADATA = ".weights.npy", ".pnl.npz", ".meta.json"


def signal_file(signal_dir: str | os.PathLike[str], signal_id: str, suffix: str) -> Path:
    """Path of one of a signal's files; the id must be a plain file name."""
    unsafe = not signal_id or signal_id.startswith(".") or set(signal_id) & set("/\\\0")
    if unsafe:
        raise ValueError(f"signal id must be a plain file name, got {signal_id!r}")
    return Path(signal_dir) / f"{signal_id}{suffix}"


def write_atomically(path: Path, write: Callable[[BinaryIO], object]) -> None:
    """Write a file so that a reader sees the old content or the new, never a part."""
    path.parent.mkdir(parents=True, exist_ok=True)
    handle, temporary = tempfile.mkstemp(dir=path.parent, prefix=f".{path.name}.")
    try:
        with os.fdopen(handle, "wb") as file:
            write(file)
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, path)
    except BaseException:
        Path(temporary).unlink(missing_ok=True)
        raise


class UsefulSignal:
    """An accepted signal that strategies may draw on; its files are read when first needed."""

    def __init__(self, signal_id: str, signal_dir: str | os.PathLike[str]) -> None:
        self.signal_id = signal_id
        self._signal_dir = signal_dir

    @cached_property
    def metadata(self) -> dict[str, Any]:
        """What was recorded when the signal was accepted ("sharpe", "turnover", ...)."""
        return json.loads(self._existing(METADATA).read_text("utf-8"))

    @cached_property
    def weights(self) -> np.ndarray:
        """Weights, float64 [days x tickers], mapped from disk."""
        return np.load(self._existing(WEIGHTS), mmap_mode="r")

    @cached_property
    def net_pnl(self) -> np.ndarray:
        """Daily PnL after costs as a fraction of gross exposure, float64 [days]."""
        with np.load(self._existing(PNL)) as stored:
            return stored["pnl"]["pnl_net"]

    def _existing(self, suffix: str) -> Path:
        path = signal_file(self._signal_dir, self.signal_id, suffix)
        if not path.exists():
            raise FileNotFoundError(f"useful signal {self.signal_id!r} has no file {path}")
        return path

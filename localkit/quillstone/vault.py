"""The data vault of one machine: opens an era and says where prices exist."""

from __future__ import annotations

import hashlib
import hmac
import os
import threading
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

from quillstone._vault_init import VaultAlreadyInitializedError

__all__ = ["LocalVault"]

SEED_BYTES = 60


class LocalVault:
    """Gives access to an era's market data once it has been opened with seed and secret.

    Args:
        data_dir: The synced data directory.
    """

    def __init__(self, data_dir: str | os.PathLike[str]) -> None:
        self._data_dir = Path(data_dir)
        self._lock = threading.Lock()
        self._era_id: int | None = None
        self._key = b""
        self._masks: dict[str, tuple[int, NDArray[np.bool_]]] = {}

    @property
    def is_ready(self) -> bool:
        """True once an era has been opened."""
        return self._era_id is not None

    @property
    def era_id(self) -> int | None:
        """The era that is open, None before the first."""
        return self._era_id

    def init_if_needed(self, shuffle_blob: bytes, wallet_secret: bytes | str, era_id: int) -> None:
        """Open `era_id`; opening it again with the same seed and secret does nothing.

        Args:
            shuffle_blob: The era's reconstruction seed, 60 bytes.
            wallet_secret: The account's secret.
            era_id: The synced era.

        Raises:
            ValueError: The seed has another length, or the secret is empty.
            VaultAlreadyInitializedError: The era is open with another seed or secret.
        """
        if len(shuffle_blob) != SEED_BYTES:
            raise ValueError(f"the seed must have {SEED_BYTES} bytes, has {len(shuffle_blob)}")
        secret = wallet_secret.encode() if isinstance(wallet_secret, str) else bytes(wallet_secret)
        if not secret:
            raise ValueError("the wallet secret is empty")
        key = hmac.digest(secret, bytes(shuffle_blob) + str(era_id).encode(), hashlib.sha256)
        with self._lock:
            if self._era_id == era_id and not hmac.compare_digest(key, self._key):
                raise VaultAlreadyInitializedError(
                    f"the vault is open for era {era_id} with another seed or secret"
                )
            self._era_id, self._key = era_id, key

    def universe_mask(self, named_universe: str) -> NDArray[np.bool_]:
        """Return where `named_universe` has a price: booleans, [days x tickers], read-only."""
        path = self._data_dir / named_universe / "market" / "closes.npy"
        stamp = path.stat().st_mtime_ns
        with self._lock:
            held = self._masks.get(named_universe)
            if held is None or held[0] != stamp:
                mask = np.isfinite(np.load(path, mmap_mode="r"))
                mask.setflags(write=False)
                held = self._masks[named_universe] = (stamp, mask)
        return held[1]

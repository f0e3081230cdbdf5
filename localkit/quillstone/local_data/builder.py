"""Makes the artifacts of a data directory from a table of prices."""

from __future__ import annotations

import hashlib
import json
import secrets
from collections.abc import Callable
from functools import partial
from pathlib import Path
from typing import Any

import numpy as np

from quillstone.era import ERA_ID, build_era_config
from quillstone.functions.catalog import vocabulary_sections
from quillstone.local_data.artifacts import array_bytes, json_bytes
from quillstone.local_data.features import FEATURES, Feature, feature_records
from quillstone.local_data.price_csv import PriceTable
from quillstone.obfuscation import check_vocabulary
from quillstone.vault import SEED_BYTES

__all__ = ["ArtifactBuilder"]

# To be raised when a feature's formula or an artifact's format changes.
BUILD_VERSION = 1
_NPY_HEADER_BYTES = 128


class ArtifactBuilder:
    """Names the artifacts of a universe and makes each on demand.

    Args:
        named_universe: The universe, a directory name.
        read_table: Gives the prices; called at most once, and only if an artifact needs them.
    """

    def __init__(self, named_universe: str, read_table: Callable[[], PriceTable]) -> None:
        self._universe = named_universe
        self._read_table = read_table
        self._held_table: PriceTable | None = None
        self._makers: dict[str, Callable[[], bytes]] = {
            "shuffle_seed.enc": lambda: secrets.token_bytes(SEED_BYTES),
            "era_config.json": lambda: json_bytes(
                build_era_config(named_universe, self._table().tickers)
            ),
            f"{named_universe}/vocabulary.json": lambda: json_bytes(self._vocabulary()),
            f"{named_universe}/market/dates.npy": lambda: array_bytes(self._table().dates),
            f"{named_universe}/market/tickers.json": lambda: json_bytes(
                list(self._table().tickers)
            ),
            f"{named_universe}/market/closes.npy": lambda: array_bytes(self._table().closes),
        }
        for name, feature in FEATURES.items():
            path = f"{named_universe}/features/{name}.npy"
            self._makers[path] = partial(self._feature_bytes, feature)

    def paths(self) -> list[str]:
        """Return the artifacts' paths below the data directory."""
        return list(self._makers)

    def build(self, path: str) -> bytes:
        """Return the content of one artifact."""
        return self._makers[path]()

    def expected_bytes(self, paths: list[str]) -> int:
        """Return about how many bytes `paths` take, in whole arrays; small files are left out."""
        arrays = sum(path.endswith(".npy") for path in paths)
        return arrays * (self._table().closes.nbytes + _NPY_HEADER_BYTES) if arrays else 0

    def definitions_sha256(self) -> str:
        """Return a hash of all that makes the artifacts besides the prices."""
        parts = [BUILD_VERSION, self._vocabulary(), build_era_config(self._universe, ())]
        return hashlib.sha256(json_bytes(parts)).hexdigest()

    def is_users_edit(self, path: str, file: Path) -> bool:
        """Tell whether a changed artifact was edited on purpose rather than damaged.

        The vocabulary is the one artifact that a user may edit: a well-formed one of this era is
        taken as it is.
        """
        if path != f"{self._universe}/vocabulary.json":
            return False
        try:
            vocabulary = check_vocabulary(json.loads(file.read_bytes()))
        except (OSError, ValueError):
            return False
        return bool(vocabulary["era_id"] == ERA_ID)

    def _table(self) -> PriceTable:
        if self._held_table is None:
            self._held_table = self._read_table()
        return self._held_table

    def _feature_bytes(self, feature: Feature) -> bytes:
        # Prices near the limits of the number format overflow to infinity: undefined, like NaN.
        with np.errstate(all="ignore"):
            values = feature.compute(self._table().closes)
        return array_bytes(np.where(np.isfinite(values), values, np.nan))

    def _vocabulary(self) -> dict[str, Any]:
        return {
            "era_id": ERA_ID,
            **vocabulary_sections(),
            "features": feature_records(),
            "metadata": {"named_universe": self._universe, "build_version": BUILD_VERSION},
        }

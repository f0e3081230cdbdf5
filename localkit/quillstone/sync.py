"""Data sync of one machine: builds the data directory from a file of prices and keeps it whole."""

from __future__ import annotations

import errno
import hashlib
import json
import os
import shutil
import threading
from collections.abc import Mapping
from dataclasses import dataclass
from pathlib import Path
from typing import Any

from quillstone.era import ERA_ID
from quillstone.freshness import LocalFreshnessGuard
from quillstone.local_data.artifacts import (
    file_sha256,
    json_bytes,
    locked,
    remove_leftovers,
    write_atomically,
)
from quillstone.local_data.builder import ArtifactBuilder
from quillstone.local_data.price_csv import PriceTable, read_prices, universe_name

__all__ = [
    "DiskSpaceError",
    "EraError",
    "IntegrityError",
    "LocalSyncManager",
    "SyncError",
    "SyncReport",
]

MANIFEST = "manifest.json"
Artifact = dict[str, Any]


class SyncError(RuntimeError):
    """The data directory could not be brought up to date."""


class IntegrityError(SyncError):
    """An artifact differs from the manifest even after it was written anew."""


class DiskSpaceError(SyncError):
    """The disk has no room for the data directory."""


class EraError(RuntimeError):
    """The data belong to another era than the one that was asked for."""


@dataclass(frozen=True)
class SyncReport:
    """What a sync did.

    Attributes:
        era_id: The era of the data.
        verified: Artifacts found as they should be.
        written: Artifacts made for the first time, or for new prices.
        repaired: Artifacts that were damaged or missing and were made again.
        bytes: Bytes read, verified and written.
    """

    era_id: int
    verified: tuple[str, ...]
    written: tuple[str, ...]
    repaired: tuple[str, ...]
    bytes: int


class LocalSyncManager:
    """Owns the data directory: one universe of one era, made from one file of prices.

    `acquire()` and `release()` count the simulations that use the data. Any number may hold a
    lease at once and give it back in any order: an artifact is replaced, never changed in place,
    so that data already opened stay as they are.

    Args:
        data_dir: The directory to build and keep.
        prices: CSV of daily closes (dates by tickers, plain or gzip). It is read again only when
            its content has changed or market data have to be repaired.
        named_universe: Name of the universe; by default made from the file's name.
    """

    def __init__(
        self,
        data_dir: str | os.PathLike[str],
        prices: str | os.PathLike[str],
        *,
        named_universe: str | None = None,
    ) -> None:
        self.data_dir = Path(data_dir)
        self.named_universe = named_universe or universe_name(prices)
        self.bytes_downloaded = 0
        self.total_bytes = 0
        self._prices = Path(prices)
        self._lock = threading.Lock()
        self._leases = 0
        self._manifest: tuple[object, dict[str, Any] | None] = (None, None)
        self.runtime_freshness_guard = LocalFreshnessGuard(self.data_dir, self.named_universe)

    @property
    def _data_dir(self) -> str:
        return str(self.data_dir)

    @property
    def feature_dir(self) -> str:
        """Directory of the universe's feature arrays."""
        return str(self.data_dir / self.named_universe / "features")

    @property
    def active_leases(self) -> int:
        """How many simulations hold the data."""
        return self._leases

    def acquire(self) -> None:
        """Take a lease on the data; never waits."""
        with self._lock:
            self._leases += 1

    def release(self) -> None:
        """Give a lease back.

        Raises:
            SyncError: More releases than leases.
        """
        with self._lock:
            if self._leases == 0:
                raise SyncError("release() without acquire()")
            self._leases -= 1

    def get_manifest(self) -> dict[str, Any] | None:
        """Return the manifest of the synced data ("era_id", "artifacts", ...), None before a sync.

        It is read again when another sync has replaced it. The mapping is shared by its readers,
        who must not change it.
        """
        try:
            status = (self.data_dir / MANIFEST).stat()
        except OSError:
            return None
        stamp = (status.st_mtime_ns, status.st_ino)
        held_stamp, manifest = self._manifest
        if stamp != held_stamp:
            manifest = self._read_manifest()
            self._manifest = (stamp, manifest)
        return manifest

    def request_for_sync(self) -> SyncReport:
        """Bring the data directory up to date and verify every artifact.

        `total_bytes` and `bytes_downloaded` tell its progress: bytes read from the file of prices
        and bytes of artifacts verified or written.

        Raises:
            PriceFileError: The file of prices has an error.
            SyncError: The file cannot be read, or the directory holds another universe.
            DiskSpaceError: The disk is full.
            IntegrityError: An artifact cannot be stored as it should be.
        """
        try:
            with locked(self.data_dir / ".sync.lock"):
                report, artifacts = self._sync()
        except OSError as error:
            if error.errno in (errno.ENOSPC, errno.EDQUOT):
                raise DiskSpaceError(f"no room left in {self.data_dir}") from error
            raise SyncError(f"data sync failed: {error}") from error
        self.runtime_freshness_guard.notice(artifacts)
        return report

    # The sync proper, under the directory's lock.

    def _sync(self) -> tuple[SyncReport, dict[str, Artifact]]:
        remove_leftovers(self.data_dir)
        self.bytes_downloaded, self.total_bytes = 0, self._prices.stat().st_size
        old = self._read_manifest() or {"named_universe": self.named_universe, "artifacts": {}}
        if old["named_universe"] != self.named_universe:
            raise SyncError(
                f"{self.data_dir} holds the universe '{old['named_universe']}', not "
                f"'{self.named_universe}'; use another directory"
            )
        builder = ArtifactBuilder(self.named_universe, self._read_table)
        manifest = {
            "era_id": ERA_ID,
            "named_universe": self.named_universe,
            "source_sha256": file_sha256(self._prices, self._advance),
            "definitions_sha256": builder.definitions_sha256(),
        }
        known = old["artifacts"] if manifest.items() <= old.items() else {}
        self.total_bytes += sum(entry["bytes"] for entry in known.values())
        artifacts: dict[str, Artifact] = {}
        for path in builder.paths():
            if (whole := self._whole_artifact(path, known, builder)) is not None:
                artifacts[path] = whole
        missing = [path for path in builder.paths() if path not in artifacts]
        if missing:
            artifacts |= self._write(builder, missing)
        manifest["artifacts"] = artifacts
        if manifest != old:
            self._set_foreign_signals_aside(old, manifest)
            write_atomically(self.data_dir / MANIFEST, json_bytes(manifest))
        self.total_bytes = self.bytes_downloaded
        report = SyncReport(
            era_id=ERA_ID,
            verified=tuple(path for path in artifacts if path not in missing),
            written=tuple(path for path in missing if path not in known),
            repaired=tuple(path for path in missing if path in known),
            bytes=self.bytes_downloaded,
        )
        return report, artifacts

    def _whole_artifact(
        self, path: str, known: Mapping[str, Artifact], builder: ArtifactBuilder
    ) -> Artifact | None:
        """Return what the manifest should say of the file, None when it has to be made."""
        file = self.data_dir / path
        if path not in known:
            return None
        try:
            found = {"sha256": file_sha256(file, self._advance), "bytes": file.stat().st_size}
        except OSError:
            return None
        return found if found == known[path] or builder.is_users_edit(path, file) else None

    def _write(self, builder: ArtifactBuilder, paths: list[str]) -> dict[str, Artifact]:
        needed = builder.expected_bytes(paths)
        if shutil.disk_usage(self.data_dir).free < needed:
            raise DiskSpaceError(f"{self.data_dir} needs {needed:,} bytes of free space")
        self.total_bytes += needed
        written: dict[str, Artifact] = {}
        for path in paths:
            content = builder.build(path)
            file = self.data_dir / path
            write_atomically(file, content)
            sha256 = hashlib.sha256(content).hexdigest()
            if file_sha256(file) != sha256:
                raise IntegrityError(f"{file} differs from what was written to it")
            written[path] = {"sha256": sha256, "bytes": len(content)}
            self._advance(len(content))
        return written

    def _set_foreign_signals_aside(self, old: Mapping[str, Any], new: Mapping[str, Any]) -> None:
        """Move accepted signals away when the prices changed: their days are not the new ones."""
        signals = self.data_dir / "signals"
        source = old.get("source_sha256")
        if source not in (None, new["source_sha256"]) and signals.exists():
            aside = self.data_dir / f"signals-of-{source[:12]}"
            shutil.rmtree(aside, ignore_errors=True)
            signals.rename(aside)

    def _read_table(self) -> PriceTable:
        return read_prices(self._prices.read_bytes(), self._prices.name)

    def _advance(self, count: int) -> None:
        self.bytes_downloaded += count

    def _read_manifest(self) -> dict[str, Any] | None:
        """The manifest on disk, None when there is none that can be used."""
        try:
            manifest = json.loads((self.data_dir / MANIFEST).read_text("utf-8"))
            whole = all(
                isinstance(entry["sha256"], str) and isinstance(entry["bytes"], int)
                for entry in manifest["artifacts"].values()
            )
        except (OSError, ValueError, LookupError, TypeError, AttributeError):
            return None
        return manifest if whole and {"era_id", "named_universe"} <= manifest.keys() else None

"""Files of the data directory: written whole or not at all, and known by their SHA-256."""

from __future__ import annotations

import contextlib
import hashlib
import io
import json
import os
import secrets
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import numpy as np
from numpy.typing import NDArray

__all__ = [
    "array_bytes",
    "file_sha256",
    "json_bytes",
    "locked",
    "remove_leftovers",
    "write_atomically",
]

_CHUNK = 1 << 20
_TEMPORARY = ".part"


def write_atomically(path: Path, content: bytes, *, mode: int = 0o644) -> None:
    """Write `content` to `path`; a reader sees the old file or the new one, never a part.

    The old file stays open for whoever has it mapped into memory.
    """
    path.parent.mkdir(parents=True, exist_ok=True)
    temporary = path.with_name(f".{path.name}.{os.getpid()}.{secrets.token_hex(4)}{_TEMPORARY}")
    try:
        descriptor = os.open(temporary, os.O_WRONLY | os.O_CREAT | os.O_EXCL, mode)
        with open(descriptor, "wb") as file:
            file.write(content)
            file.flush()
            os.fsync(file.fileno())
        os.replace(temporary, path)
    finally:
        with contextlib.suppress(FileNotFoundError):
            temporary.unlink()


def remove_leftovers(folder: Path) -> None:
    """Remove what writers that were killed have left below `folder`; none may be at work."""
    for leftover in folder.rglob(f".*{_TEMPORARY}"):
        leftover.unlink(missing_ok=True)


def file_sha256(path: Path, advance: Callable[[int], None] = lambda read: None) -> str:
    """Return the SHA-256 of a file as hexadecimal text.

    Args:
        path: The file.
        advance: Told the number of bytes after each piece read.
    """
    digest = hashlib.sha256()
    with path.open("rb") as file:
        while chunk := file.read(_CHUNK):
            digest.update(chunk)
            advance(len(chunk))
    return digest.hexdigest()


def json_bytes(value: Any) -> bytes:
    """Return `value` as indented JSON; not a number is no JSON and is refused."""
    return (json.dumps(value, indent=1, allow_nan=False) + "\n").encode()


def array_bytes(array: NDArray[Any]) -> bytes:
    """Return `array` in NumPy's `.npy` format."""
    buffer = io.BytesIO()
    np.save(buffer, np.ascontiguousarray(array), allow_pickle=False)
    return buffer.getvalue()


@contextlib.contextmanager
def locked(path: Path) -> Iterator[None]:
    """Hold the lock file `path`: one holder among all threads and processes of the machine."""
    try:
        import fcntl
    except ImportError:  # no such locks on this platform: one process per data directory
        yield
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    with path.open("a") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield

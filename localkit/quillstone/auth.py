"""The account of a single machine: one secret, kept in a file that only its owner can read."""

from __future__ import annotations

import os
import secrets
from pathlib import Path

from quillstone.local_data.artifacts import write_atomically

__all__ = ["AuthError", "LocalAuth"]

SECRET_BYTES = 32


class AuthError(RuntimeError):
    """The account's secret cannot be read or is not usable."""


class LocalAuth:
    """Hands out the wallet secret that opens the era's data vault.

    Args:
        secret_path: File of the secret, as hexadecimal text. Made on first use.
    """

    def __init__(self, secret_path: str | os.PathLike[str]) -> None:
        self._path = Path(secret_path)

    def get_wallet_secret(self) -> bytes:
        """Return the account's secret (32 bytes), making it on first use.

        Raises:
            AuthError: The file cannot be read or written, or does not hold a secret.
        """
        try:
            if not self._path.exists():
                self._path.parent.mkdir(parents=True, exist_ok=True)
                write_atomically(self._path, secrets.token_hex(SECRET_BYTES).encode(), mode=0o600)
            secret = bytes.fromhex(self._path.read_text("ascii").strip())
        except (OSError, ValueError) as error:
            raise AuthError(f"cannot read the wallet secret {self._path}: {error}") from error
        if len(secret) != SECRET_BYTES:
            raise AuthError(
                f"the wallet secret {self._path} must have {SECRET_BYTES} bytes, has {len(secret)}"
            )
        return secret

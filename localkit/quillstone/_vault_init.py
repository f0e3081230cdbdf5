"""Whether a vault that refused a second initialisation may be used as it stands."""

from __future__ import annotations

__all__ = ["VaultAlreadyInitializedError", "vault_already_initialized_is_ready"]


class VaultAlreadyInitializedError(RuntimeError):
    """The vault is open already, with another seed or secret of the same era."""


def vault_already_initialized_is_ready(vault: object, error: BaseException) -> bool:
    """Tell whether `error` only says that `vault` is open already, and it is.

    Args:
        vault: The vault whose initialisation failed.
        error: What it raised.

    Returns:
        True when the failure may be ignored: the vault serves data. Every other failure counts.
    """
    already_open = isinstance(error, VaultAlreadyInitializedError)
    return already_open and bool(getattr(vault, "is_ready", False))

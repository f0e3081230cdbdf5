"""Errors that every part of the kit may raise."""

from __future__ import annotations

__all__ = ["SdkRuntimeNotReadyError"]

_DEFAULT_MESSAGE = (
    "The runtime is not ready: the synced era data are missing or of an older shape. "
    "Run a data sync and try again."
)


class SdkRuntimeNotReadyError(RuntimeError):
    """The synced runtime lacks something that a simulation cannot do without.

    Raised with a message that names the missing piece, or without one when the synced data as a
    whole are missing or outdated.
    """

    def __init__(self, message: str = _DEFAULT_MESSAGE) -> None:
        super().__init__(message)

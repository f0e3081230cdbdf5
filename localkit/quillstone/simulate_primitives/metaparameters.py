"""Metaparameters: the option that each transform stage of a run applies."""

from quillstone._simulate_primitives import (
    canonicalize,
    resolve_metaparameters,
    resolve_metaparameters_per_pool,
)

__all__ = ["canonicalize", "resolve_metaparameters", "resolve_metaparameters_per_pool"]

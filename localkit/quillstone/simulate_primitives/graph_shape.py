"""The shape of graphs that are still in dictionary form."""

from quillstone._simulate_primitives import has_filtration_node

__all__ = ["has_filtration_node"]

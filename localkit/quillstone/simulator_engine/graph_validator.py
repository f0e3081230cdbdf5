"""Judges a typed graph against the vocabulary before anything is computed."""

from __future__ import annotations

from collections.abc import Set
from dataclasses import dataclass

from quillstone.function_store import FunctionEntry, FunctionStore, check_params
from quillstone.functions._typed_shapes import FunctionGraphNode, post_order

# Kinds of operand that a node of a kind may have. A filtration yields a choice of signals, a
# reduction turns it into weights, and the other two yield values per day and ticker.
_OPERANDS = {
    "feature": (),
    "rotation": ("feature", "rotation", "reduction"),
    "filtration": ("filtration",),
    "reduction": ("filtration",),
}


class GraphValidationError(ValueError):
    """The graph cannot be evaluated with this vocabulary; the text says which node and why."""


@dataclass(frozen=True)
class ValidatorConfig:
    """Limits on a graph: nodes on the longest path, and nodes in all (shared ones once)."""

    max_depth: int = 64
    max_nodes: int = 512


@dataclass(frozen=True)
class ValidatorNames:
    """The names that the synced vocabulary offers."""

    features: Set[str] = frozenset()
    rotations: Set[str] = frozenset()
    filtrations: Set[str] = frozenset()
    reductions: Set[str] = frozenset()


class GraphValidator:
    """Validates graphs over one registry; may be shared by simulations on several threads."""

    def __init__(
        self,
        registry: FunctionStore,
        config: ValidatorConfig | None = None,
        names: ValidatorNames | None = None,
    ) -> None:
        self.config = config or ValidatorConfig()
        self.rebind(registry, names)

    def rebind(self, registry: FunctionStore, names: ValidatorNames | None) -> None:
        """Judge by another registry and other names from the next call on."""
        self._vocabulary = (registry, names or ValidatorNames())

    def validate(self, graph: FunctionGraphNode, expression_type: str) -> None:
        """Raise `GraphValidationError` unless the graph is a valid expression of its type.

        ``expression_type`` is "SIGNAL" (features and rotations) or "STRATEGY" (a choice of useful
        signals, reduced to weights, which rotations may rework).
        """
        registry, names = self._vocabulary
        if not isinstance(graph, FunctionGraphNode):
            got = type(graph).__name__
            raise GraphValidationError(f"a FunctionGraphNode is required, got {got}")
        depths: dict[int, int] = {}
        filtrations = 0
        for node in post_order(graph):
            depths[id(node)] = depth = 1 + max((depths[id(c)] for c in node.children), default=0)
            if len(depths) > self.config.max_nodes:
                raise GraphValidationError(f"graph has more than {self.config.max_nodes} nodes")
            if depth > self.config.max_depth:
                raise GraphValidationError(f"graph is deeper than {self.config.max_depth} nodes")
            _check_kinds(node, expression_type)
            if node.type == "feature":
                _check_feature(node, names)
            else:
                _check_function(node, registry, names)
            filtrations += node.type == "filtration"
        if expression_type != "STRATEGY":
            return
        if not filtrations:
            raise GraphValidationError("a strategy graph needs at least one filtration node")
        if graph.type not in ("reduction", "rotation"):
            raise GraphValidationError(
                f"a strategy graph must end in weights: {_label(graph)} at its root yields "
                "a choice of signals; put a reduction over it"
            )


def _label(node: FunctionGraphNode) -> str:
    return f"{node.type} {node.name!r}"


def _check_kinds(node: FunctionGraphNode, expression_type: str) -> None:
    if node.type not in _OPERANDS:
        raise GraphValidationError(f"node type {node.type!r} is not allowed")
    if expression_type != "STRATEGY" and node.type in ("filtration", "reduction"):
        raise GraphValidationError(
            f"{_label(node)} is not allowed in a signal graph; only strategies draw on signals"
        )
    for child in node.children:
        if child.type not in _OPERANDS[node.type]:
            allowed = ", ".join(_OPERANDS[node.type]) or "no operands"
            raise GraphValidationError(
                f"{_label(node)} cannot take {_label(child)} as an operand (takes: {allowed})"
            )


def _check_feature(node: FunctionGraphNode, names: ValidatorNames) -> None:
    if node.name not in names.features:
        known = ", ".join(sorted(names.features)) or "none"
        raise GraphValidationError(f"unknown feature {node.name!r}; known features: {known}")
    if node.params:
        raise GraphValidationError(f"{_label(node)} takes no parameters")


def _check_function(
    node: FunctionGraphNode, registry: FunctionStore, names: ValidatorNames
) -> None:
    entry: FunctionEntry | None = registry.get(node.name)
    known = getattr(names, f"{node.type}s")
    if entry is None or node.name not in known:
        offered = ", ".join(sorted(known)) or "none"
        raise GraphValidationError(
            f"unknown {node.type} {node.name!r}; known {node.type}s: {offered}"
        )
    if entry.function_type != node.type:
        raise GraphValidationError(f"{_label(node)} is registered as a {entry.function_type}")
    if entry.status != "approved" or entry.engine_only:
        why = "is for the engine only" if entry.engine_only else f"has status {entry.status!r}"
        raise GraphValidationError(f"{_label(node)} {why} and cannot be used in a graph")
    count = len(node.children)
    # A filtration without operand draws on every useful signal.
    if count != entry.arity and not (node.type == "filtration" and count == 0):
        raise GraphValidationError(f"{_label(node)} takes {entry.arity} operand(s), got {count}")
    if entry.factory is None:
        raise GraphValidationError(
            f"{_label(node)} has no implementation: "
            f"{entry.module_path or '?'}.{entry.class_name or '?'} cannot be loaded"
        )
    try:
        entry.factory(**check_params(entry, node.params))
    except (TypeError, ValueError) as error:
        raise GraphValidationError(str(error)) from error

"""The typed expression graph that the validator, the evaluator and the pipeline share."""

from __future__ import annotations

import hashlib
import json
from collections.abc import Callable, Iterator, Mapping
from dataclasses import dataclass, field
from typing import Any

NODE_TYPES = ("feature", "rotation", "filtration", "reduction", "aggregation")
_RAW_KEYS = frozenset({"type", "name", "params", "children"})
_SCALARS = (str, int, float, bool, type(None))
_canonical = json.JSONEncoder(sort_keys=True, separators=(",", ":")).encode


class FunctionGraphNode:
    """One node of an expression graph; treat it as immutable once built.

    ``type`` is one of `NODE_TYPES`, ``name`` a feature's or a function's name in the vocabulary,
    ``params`` the function's scalar parameters and ``children`` its operands, in order. Two
    graphs are equal when they compute the same thing: same types, names, parameters and
    operands. Nothing here recurses, so a graph may be as deep as memory allows.
    """

    __slots__ = ("__weakref__", "_graph_hash", "children", "name", "params", "type")

    def __init__(
        self,
        type: str,
        name: str,
        children: tuple[FunctionGraphNode, ...] | list[FunctionGraphNode] = (),
        params: Mapping[str, Any] | None = None,
    ) -> None:
        self.type = type
        self.name = name
        self.children = tuple(children)
        self.params = dict(params or {})
        self._graph_hash = ""

    @classmethod
    def from_raw(cls, raw_graph: Any) -> FunctionGraphNode:
        """Build a graph from its dictionary form.

        A node is ``{"type": ..., "name": ..., "params": {...}, "children": [...]}``; ``params``
        and ``children`` may be left out. A dictionary met twice becomes one shared node. Raises
        `TypeError` or `ValueError` naming the offending node.
        """
        built: dict[int, FunctionGraphNode] = {}
        open_nodes: set[int] = set()
        stack: list[tuple[Any, _Place | None, bool]] = [(raw_graph, None, False)]
        while stack:
            raw, place, children_done = stack.pop()
            key = id(raw)
            if children_done:
                open_nodes.discard(key)
                operands = [built[id(child)] for child in raw.get("children") or ()]
                built[key] = cls(raw["type"], raw["name"], operands, raw.get("params"))
                continue
            if isinstance(raw, cls) or key in built:
                built.setdefault(key, raw)
                continue
            if key in open_nodes:
                raise ValueError(f"graph contains a cycle at {_path(place)}")
            _check_raw_node(raw, place)
            open_nodes.add(key)
            stack.append((raw, place, True))
            children = raw.get("children") or ()
            stack.extend(
                (children[index], (place, index), False) for index in reversed(range(len(children)))
            )
        return built[id(raw_graph)]

    def to_dict(self) -> dict[str, Any]:
        """The dictionary form that `from_raw` reads; shared nodes become shared dictionaries."""
        raw: dict[int, dict[str, Any]] = {}
        for node in post_order(self):
            raw[id(node)] = {
                "type": node.type,
                "name": node.name,
                "params": dict(node.params),
                "children": [raw[id(child)] for child in node.children],
            }
        return raw[id(self)]

    @property
    def feature_name(self) -> str | None:
        """The feature that this node reads, None for a function node."""
        return self.name if self.type == "feature" else None

    @property
    def function_name(self) -> str | None:
        """The function that this node applies, None for a feature node."""
        return None if self.type == "feature" else self.name

    @property
    def graph_hash(self) -> str:
        """Content hash (SHA-256, hexadecimal) of the graph below this node."""
        if not self._graph_hash:
            for node in post_order(self, skip=lambda node: bool(node._graph_hash)):
                parts = [node.type, node.name, node.params]
                parts.extend(child._graph_hash for child in node.children)
                node._graph_hash = hashlib.sha256(_canonical(parts).encode()).hexdigest()
        return self._graph_hash

    def __eq__(self, other: object) -> bool:
        if not isinstance(other, FunctionGraphNode):
            return NotImplemented
        return self is other or self.graph_hash == other.graph_hash

    def __hash__(self) -> int:
        return hash(self.graph_hash)

    def __repr__(self) -> str:
        return (
            f"FunctionGraphNode(type={self.type!r}, name={self.name!r}, "
            f"params={self.params!r}, children=<{len(self.children)}>)"
        )


@dataclass
class StageData:
    """What the transform stages of one evaluation leave behind.

    ``applied`` receives the option that each stage applied, by the stage's name.
    """

    applied: dict[str, str] = field(default_factory=dict)


def post_order(
    graph: FunctionGraphNode,
    skip: Callable[[FunctionGraphNode], bool] | None = None,
) -> Iterator[FunctionGraphNode]:
    """Each node object once, operands before the nodes that use them.

    Nodes for which ``skip`` holds are left out, with what lies below them.
    """
    seen: set[int] = set()
    stack: list[tuple[FunctionGraphNode, bool]] = [(graph, False)]
    while stack:
        node, children_done = stack.pop()
        if children_done:
            yield node
            continue
        if id(node) in seen or (skip is not None and skip(node)):
            continue
        seen.add(id(node))
        stack.append((node, True))
        stack.extend((child, False) for child in reversed(node.children))


type _Place = tuple[_Place | None, int]


def _path(place: _Place | None) -> str:
    """Where a node stands, as an expression a user can follow; deep places are abridged."""
    steps = []
    while place is not None:
        place, index = place
        steps.append(f"children[{index}]")
    if len(steps) > 12:
        steps[6:-6] = [f"...({len(steps) - 12} more)..."]
    return ".".join(["graph", *reversed(steps)])


def _check_raw_node(raw: Any, place: _Place | None) -> None:
    if not isinstance(raw, dict):
        raise TypeError(f"{_path(place)}: a node must be a dictionary, got {type(raw).__name__}")
    if unknown := [key for key in raw if key not in _RAW_KEYS]:
        allowed = ", ".join(sorted(_RAW_KEYS))
        raise ValueError(f"{_path(place)}: unknown node key {unknown[0]!r}; allowed: {allowed}")
    kind = raw.get("type")
    if kind not in NODE_TYPES:
        allowed = ", ".join(NODE_TYPES)
        raise ValueError(f"{_path(place)}: node type must be one of {allowed}, got {kind!r}")
    name = raw.get("name")
    if not isinstance(name, str) or not name:
        raise ValueError(f"{_path(place)}: node name must be a non-empty string, got {name!r}")
    params = raw.get("params")
    if params is not None and not isinstance(params, dict):
        got = type(params).__name__
        raise TypeError(f"{_path(place)}: params must be a dictionary, got {got}")
    for key, value in (params or {}).items():
        if not isinstance(key, str):
            raise TypeError(f"{_path(place)}: parameter names must be strings, got {key!r}")
        if not isinstance(value, _SCALARS):
            got = type(value).__name__
            raise TypeError(f"{_path(place)}: parameter {key!r} must be a scalar, got {got}")
    children = raw.get("children")
    if children is not None and not isinstance(children, (list, tuple)):
        got = type(children).__name__
        raise TypeError(f"{_path(place)}: children must be a list, got {got}")
    if kind == "feature" and children:
        raise ValueError(f"{_path(place)}: feature {name!r} takes no children")

"""The registry of the functions that graphs may use."""

from __future__ import annotations

import importlib
from collections.abc import Iterator, Mapping
from dataclasses import dataclass, field, fields
from typing import Any

FUNCTION_TYPES = ("rotation", "filtration", "reduction", "aggregation")


@dataclass(frozen=True)
class FunctionEntry:
    """One function of the vocabulary.

    ``arity`` is the number of operands; for a filtration, which may also stand alone, the most
    that it takes. ``factory`` makes the function from its parameters: ``factory(**params)``
    gives a callable. ``param_schema`` maps a parameter to its rule, see `check_params`.
    """

    name: str
    function_type: str
    family: str = ""
    subfamily: str = ""
    param_schema: Mapping[str, Any] = field(default_factory=dict)
    stateful: bool = False
    arity: int = 0
    module_path: str = ""
    class_name: str = ""
    status: str = "approved"
    creator_wallet: str = ""
    function_version: int = 1
    engine_only: bool = False
    factory: Any = None


class FunctionStore:
    """Function entries by name, in the order in which they were added."""

    def __init__(self) -> None:
        self._entries: dict[str, FunctionEntry] = {}

    def has(self, name: str) -> bool:
        """Whether an entry of that name is registered."""
        return name in self._entries

    def add(self, entry: FunctionEntry) -> None:
        """Register an entry; raises on an invalid one and on a name that is taken."""
        if not isinstance(entry, FunctionEntry):
            raise TypeError(f"a FunctionEntry is required, got {type(entry).__name__}")
        _check_entry(entry)
        if entry.name in self._entries:
            raise ValueError(f"function {entry.name!r} is already registered")
        self._entries[entry.name] = entry

    def get(self, name: str, default: Any = None) -> Any:
        """The entry of that name, or ``default``."""
        return self._entries.get(name, default)

    def names(self, function_type: str | None = None) -> list[str]:
        """The names registered, of one function type or of all."""
        return [e.name for e in self if function_type in (None, e.function_type)]

    def __contains__(self, name: object) -> bool:
        return name in self._entries

    def __iter__(self) -> Iterator[FunctionEntry]:
        return iter(tuple(self._entries.values()))

    def __len__(self) -> int:
        return len(self._entries)

    def __bool__(self) -> bool:
        # An empty registry is still a registry.
        return True

    def __repr__(self) -> str:
        return f"FunctionStore({len(self)} functions)"


def check_params(entry: FunctionEntry, params: Mapping[str, Any]) -> dict[str, Any]:
    """The parameters that ``entry.factory`` is called with: those given over the defaults.

    A schema maps a parameter to ``{"type": "int" | "float" | "str", "default": ..., "min": ...,
    "max": ..., "choices": [...]}``; a parameter without default is required. Raises `ValueError`
    naming the function and the parameter.
    """
    schema = entry.param_schema
    if unknown := sorted(set(params) - set(schema)):
        known = ", ".join(schema) or "none"
        raise ValueError(
            f"function {entry.name!r} has no parameter {unknown[0]!r} (parameters: {known})"
        )
    resolved = {}
    for name, rule in schema.items():
        if name not in params:
            if "default" not in rule:
                raise ValueError(f"function {entry.name!r} requires parameter {name!r}")
            resolved[name] = rule["default"]
            continue
        value = params[name]
        if fault := _param_fault(value, rule):
            raise ValueError(f"function {entry.name!r}: parameter {name!r} {fault}, got {value!r}")
        resolved[name] = value
    return resolved


def _param_fault(value: Any, rule: Mapping[str, Any]) -> str | None:
    kind = rule.get("type", "float")
    accepted = {"int": (int,), "float": (int, float), "str": (str,)}.get(kind)
    if accepted is None:
        return f"has an unknown schema type {kind!r}"
    if isinstance(value, bool) or not isinstance(value, accepted):
        return f"must be of type {kind}"
    if "choices" in rule and value not in rule["choices"]:
        return f"must be one of {', '.join(map(str, rule['choices']))}"
    if kind == "str":
        return None
    # Written so that a NaN fails either bound.
    if "min" in rule and not value >= rule["min"]:
        return f"must be at least {rule['min']}"
    if "max" in rule and not value <= rule["max"]:
        return f"must be at most {rule['max']}"
    return None if value == value else "must be a number"


def _check_entry(entry: FunctionEntry) -> None:
    if not isinstance(entry.name, str) or not entry.name:
        raise ValueError(f"a function needs a non-empty name, got {entry.name!r}")
    if entry.function_type not in FUNCTION_TYPES:
        allowed = ", ".join(FUNCTION_TYPES)
        raise ValueError(
            f"function {entry.name!r}: type must be one of {allowed}, got {entry.function_type!r}"
        )
    if isinstance(entry.arity, bool) or not isinstance(entry.arity, int) or entry.arity < 0:
        raise ValueError(f"function {entry.name!r}: arity must be 0 or more, got {entry.arity!r}")
    schema = entry.param_schema
    if not isinstance(schema, Mapping) or not all(isinstance(r, Mapping) for r in schema.values()):
        raise ValueError(f"function {entry.name!r}: param_schema must map parameters to rules")


def store_from_vocabulary(raw_vocabulary: Mapping[str, Any]) -> FunctionStore:
    """The registry of a synced vocabulary's functions; the first record of a name counts.

    A record whose class cannot be loaded keeps its place without a factory, so that a graph that
    uses it is told so.
    """
    store = FunctionStore()
    for function_type in FUNCTION_TYPES:
        pending = [raw_vocabulary.get(f"{function_type}s")]
        while pending:
            node = pending.pop()
            if isinstance(node, Mapping) and node.get("name"):
                if not store.has(node["name"]):
                    store.add(_entry(node, function_type))
            elif isinstance(node, Mapping):
                pending.extend(reversed(list(node.values())))
            elif isinstance(node, list):
                pending.extend(record for record in reversed(node) if isinstance(record, Mapping))
    return store


def _entry(record: Mapping[str, Any], function_type: str) -> FunctionEntry:
    known = {field.name for field in fields(FunctionEntry)} - {"function_type", "factory"}
    values = {name: value for name, value in record.items() if name in known}
    try:
        module = importlib.import_module(record["module_path"])
        factory = getattr(module, record["class_name"], None)
    except (ImportError, KeyError):
        factory = None
    return FunctionEntry(function_type=function_type, factory=factory, **values)

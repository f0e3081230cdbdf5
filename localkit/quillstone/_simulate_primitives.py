"""Rules that entry points and pipeline share: metaparameters and the shape of raw graphs.

They live in this one module so that they are there even where the package
`quillstone.simulate_primitives` is not.

Metaparameters name the option that each transform stage of a run applies. A request maps a
stage's name to an option, or to one option per pool::

    {"smooth": "five_days", "neutralise": {"core": "market", "wide": "none"}}
"""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from typing import Any


def has_filtration_node(raw_graph: Any) -> bool:
    """Whether a node of type "filtration" is reachable through "children".

    Dictionary nodes and objects with the attributes ``type`` and ``children`` are understood;
    anything else counts as a leaf. Shared nodes are visited once, so a cycle ends.
    """
    seen: set[int] = set()
    stack = [raw_graph]
    while stack:
        node = stack.pop()
        if id(node) in seen:
            continue
        seen.add(id(node))
        if isinstance(node, dict):
            kind, children = node.get("type"), node.get("children")
        else:
            kind, children = getattr(node, "type", None), getattr(node, "children", None)
        if kind == "filtration":
            return True
        if isinstance(children, (list, tuple)):
            stack.extend(reversed(children))
    return False


def canonicalize(metaparameters_by_pool: Mapping[str, Mapping[str, Any]]) -> dict[str, Any]:
    """The same metaparameters in one agreed order: keys as text, sorted, at both levels."""
    return {
        str(pool): {str(stage): options[stage] for stage in sorted(options, key=str)}
        for pool, options in sorted(metaparameters_by_pool.items(), key=lambda item: str(item[0]))
    }


def resolve_metaparameters(
    requested: Mapping[str, Any] | None,
    transform_pipeline: Iterable[Any] | None,
) -> dict[str, Any]:
    """Complete a request with the pipeline's per-pool defaults.

    A stage that the request leaves out and whose "per_pool_default" maps pools to options takes
    that mapping; other stages are left to their own default. Raises `ValueError` for a stage
    that the pipeline lacks, or an option that the stage does not offer.
    """
    resolved = _checked_request(requested)
    stages = {_field(stage, "name"): stage for stage in transform_pipeline or ()}
    for name, choice in resolved.items():
        if name not in stages:
            known = ", ".join(map(str, stages)) or "none"
            raise ValueError(f"unknown transform stage {name!r} in metaparameters (has: {known})")
        offered = _field(stages[name], "option_configs")
        options = choice.values() if isinstance(choice, Mapping) else [choice]
        for option in options:
            if isinstance(offered, Mapping) and option not in offered:
                known = ", ".join(map(str, offered))
                raise ValueError(f"transform stage {name!r} has no option {option!r} ({known})")
    for name, stage in stages.items():
        per_pool = _field(stage, "per_pool_default")
        if name not in resolved and isinstance(per_pool, Mapping):
            resolved[name] = dict(per_pool)
    return resolved


def resolve_metaparameters_per_pool(
    requested: Mapping[str, Any] | None,
    pool_ids: Iterable[str],
) -> dict[str, dict[str, Any]]:
    """For each pool the plain mapping from stage to option.

    A per-pool choice that does not name the pool leaves the stage to its default.
    """
    request = _checked_request(requested)
    by_pool: dict[str, dict[str, Any]] = {}
    for pool in pool_ids:
        options = by_pool[pool] = {}
        for stage, choice in request.items():
            if not isinstance(choice, Mapping):
                options[stage] = choice
            elif pool in choice:
                options[stage] = choice[pool]
    return by_pool


def _checked_request(requested: Mapping[str, Any] | None) -> dict[str, Any]:
    if requested is None:
        return {}
    if not isinstance(requested, Mapping):
        got = type(requested).__name__
        raise TypeError(f"metaparameters must map stages to options, got {got}")
    return dict(requested)


def _field(stage: Any, name: str) -> Any:
    return stage.get(name) if isinstance(stage, Mapping) else getattr(stage, name, None)

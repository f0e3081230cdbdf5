"""The era's transform pipeline: what happens to an expression's values before they are weights.

A stage has a "name", a "default" option and "option_configs"; a run's metaparameters may choose
another option by the stage's name. An option applies the transform that its configuration names
under "rotation" or "transform" (with "params"), or the parts listed under "composite" in order;
an option without configuration is itself the name of a transform. Transforms are "none",
"neutralise", the rescaling ones, and every rotation of the vocabulary with one operand.
"""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from typing import Any

import numpy as np

from quillstone.function_store import FunctionStore, check_params
from quillstone.functions._typed_shapes import StageData
from quillstone.functions.cross_section import demean, unit_gross

# What an era without stages of its own gets: a dollar-neutral book of unit gross exposure.
DEFAULT_STAGES: tuple[Mapping[str, Any], ...] = (
    {"name": "neutralise", "default": "neutralise"},
    {"name": "rescale", "default": "l1_resize"},
)

_BUILT_IN = {
    "none": lambda x: x,
    "neutralise": demean,
    "rescale": unit_gross,
    "l1_resize": unit_gross,
    "latitudinal_fill_c3d683": unit_gross,
}

Transform = tuple[Any, Mapping[str, Any]]


def apply_stages(
    values: np.ndarray,
    transform_pipeline: Iterable[Any] | None,
    metaparameters: Mapping[str, Any] | None,
    registry: FunctionStore,
    stage_data: StageData | None = None,
) -> np.ndarray:
    """Run ``values`` [days x tickers] through the stages, in order.

    Raises `ValueError` for a metaparameter that names no stage and for an unknown option.
    """
    stages = tuple(transform_pipeline or ()) or DEFAULT_STAGES
    chosen = metaparameters if isinstance(metaparameters, Mapping) else {}
    names = [_field(stage, "name") for stage in stages]
    if unknown := [name for name in chosen if name not in names]:
        known = ", ".join(map(str, names))
        raise ValueError(f"unknown transform stage {unknown[0]!r} in metaparameters (has: {known})")
    for name, stage in zip(names, stages, strict=True):
        option = chosen.get(name, _field(stage, "default"))
        for transform, params in _transforms(name, option, _field(stage, "option_configs")):
            values = _apply(name, transform, params, values, registry)
        if stage_data is not None:
            stage_data.applied[str(name)] = str(option)
    return values


def _transforms(name: Any, option: Any, configs: Any) -> Iterator[Transform]:
    if option is None:
        return
    config = configs.get(option) if isinstance(configs, Mapping) else None
    if isinstance(configs, Mapping) and configs and config is None and option not in configs:
        known = ", ".join(map(str, configs))
        raise ValueError(f"transform stage {name!r} has no option {option!r} (has: {known})")
    config = config if isinstance(config, Mapping) else {}
    composite = config.get("composite")
    if not isinstance(composite, (list, tuple)):
        yield config.get("rotation") or config.get("transform") or option, _params(config)
        return
    for part in composite:
        if isinstance(part, Mapping):
            keys = ("name", "rotation", "transform")
            yield next((part[key] for key in keys if part.get(key)), None), _params(part)
        else:
            yield part, {}


def _apply(
    stage: Any,
    transform: Any,
    params: Mapping[str, Any],
    values: np.ndarray,
    registry: FunctionStore,
) -> np.ndarray:
    built_in = _BUILT_IN.get(transform) if isinstance(transform, str) else None
    if built_in is not None:
        return built_in(values)
    entry = registry.get(transform) if isinstance(transform, str) else None
    if entry is None or entry.function_type != "rotation" or entry.arity != 1:
        raise ValueError(f"transform stage {stage!r}: unknown transform {transform!r}")
    return entry.factory(**check_params(entry, params))(values)


def _params(config: Mapping[str, Any]) -> Mapping[str, Any]:
    return config.get("params") or {}


def _field(stage: Any, name: str) -> Any:
    return stage.get(name) if isinstance(stage, Mapping) else getattr(stage, name, None)

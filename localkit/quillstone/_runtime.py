"""Typed views of the synced era, and what a graph validator is built from."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass, field
from typing import Any

from quillstone.errors import SdkRuntimeNotReadyError

__all__ = ["SdkEraConfig", "SdkPool", "sdk_era_config_from_dict"]


@dataclass(frozen=True)
class SdkPool:
    """One signal or strategy pool of an era.

    Attributes:
        pool_id: Its identifier.
        name: Its display name.
        signal_pool_name: For a strategy pool, the signal pool that it draws on.
        allowed_named_universes: Where it may be simulated, in order of preference.
    """

    pool_id: str | None
    name: str | None
    signal_pool_name: str | None
    allowed_named_universes: tuple[str, ...]


@dataclass(frozen=True)
class SdkEraConfig:
    """An era configuration read by attribute.

    Attributes:
        era_id: The era.
        allowed_named_universes: Universes of the whole era; empty when only pools limit them.
        universe_rules: From named universe to its rule ("rule_id", "market_id", "pool_id").
        signal_pools: Pools for signals.
        strategy_pools: Pools for strategies.
        evaluation_pnl_columns: PnL columns, the primary one first.
        transform_pipeline: Stages from expression values to weights.
    """

    era_id: int
    allowed_named_universes: tuple[str, ...] = ()
    universe_rules: dict[str, Any] = field(default_factory=dict)
    signal_pools: tuple[SdkPool, ...] = ()
    strategy_pools: tuple[SdkPool, ...] = ()
    evaluation_pnl_columns: tuple[str, ...] = ()
    transform_pipeline: tuple[Any, ...] = ()


def sdk_era_config_from_dict(era_config: Any) -> Any:
    """Return the typed form of an era configuration; one that is typed already is handed back.

    Raises:
        SdkRuntimeNotReadyError: There is no configuration, or it names no era.
    """
    if era_config is None:
        raise SdkRuntimeNotReadyError("the era configuration has not been synced")
    if not isinstance(era_config, Mapping):
        return era_config
    if "era_id" not in era_config:
        raise SdkRuntimeNotReadyError("missing required era config field: era_id")
    return SdkEraConfig(
        era_id=era_config["era_id"],
        allowed_named_universes=_names(era_config.get("allowed_named_universes")),
        universe_rules=era_config.get("universe_rules") or {},
        signal_pools=_pools(era_config.get("signal_pools")),
        strategy_pools=_pools(era_config.get("strategy_pools")),
        evaluation_pnl_columns=tuple(era_config.get("evaluation_pnl_columns") or ()),
        transform_pipeline=tuple(era_config.get("transform_pipeline") or ()),
    )


def _pools(pools: Iterable[Any] | None) -> tuple[SdkPool, ...]:
    return tuple(
        SdkPool(
            pool_id=pool.get("pool_id"),
            name=pool.get("name"),
            signal_pool_name=pool.get("signal_pool_name"),
            allowed_named_universes=_names(pool.get("allowed_named_universes")),
        )
        for pool in pools or ()
        if isinstance(pool, Mapping)
    )


def _names(names: Any) -> tuple[str, ...]:
    return tuple(names) if isinstance(names, list | tuple) else ()


def _graph_validator_config(raw_vocabulary: Mapping[str, Any]) -> Any:
    """Return the validator's limits; the vocabulary's metadata may set "graph_limits"."""
    from quillstone.simulator_engine.graph_validator import ValidatorConfig

    metadata = raw_vocabulary.get("metadata")
    limits = metadata.get("graph_limits") if isinstance(metadata, Mapping) else None
    known = ValidatorConfig.__dataclass_fields__
    return ValidatorConfig(**{key: int(v) for key, v in (limits or {}).items() if key in known})


def _graph_validator_names(raw_vocabulary: Mapping[str, Any]) -> Any:
    """Return the names that a graph may use: the features, and the functions of each section."""
    from quillstone.simulator_engine.graph_validator import ValidatorNames

    sections = ("rotations", "filtrations", "reductions")
    return ValidatorNames(
        features=frozenset(raw_vocabulary.get("features") or ()),
        **{section: frozenset(_record_names(raw_vocabulary.get(section))) for section in sections},
    )


def _record_names(node: Any) -> Iterable[str]:
    """Names of the records in a section: lists of records below any depth of groupings."""
    if isinstance(node, Mapping):
        if node.get("name"):
            yield node["name"]
        else:
            for value in node.values():
                yield from _record_names(value)
    elif isinstance(node, list):
        yield from (r["name"] for r in node if isinstance(r, Mapping) and r.get("name"))

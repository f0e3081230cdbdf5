"""The measured rules in plain Python: what a user would write without the module."""

import importlib
import logging
import math

import numpy as np

from quillstone._simulate_primitives import has_filtration_node
from quillstone.functions._typed_shapes import FunctionGraphNode

logger = logging.getLogger(__name__)

SECTIONS = {
    "rotations": "rotation",
    "filtrations": "filtration",
    "reductions": "reduction",
    "aggregations": "aggregation",
}
POOL_KEYS = {
    "SIGNAL": ("pool_id", "name", "signal_pool_name", "signal_pool_id"),
    "STRATEGY": ("pool_id", "name", "strategy_pool_name", "strategy_pool_id"),
}
IDENTIFIER_KEYS = ("graph_hash", "submission_id", "id", "signal_id")
RESCALING = ("rescale", "latitudinal_fill_c3d683", "l1_resize")


# Graphs.


def reject_aggregation(graph):
    stack = [graph]
    while stack:
        node = stack.pop()
        if getattr(node, "type", None) == "aggregation":
            raise ValueError("graph node type 'aggregation' is not allowed")
        stack.extend(getattr(node, "children", None) or ())


def has_filtration(graph):
    if not isinstance(graph, FunctionGraphNode):
        return has_filtration_node(graph)
    if graph.type == "filtration":
        return True
    for child in graph.children:  # noqa: SIM110 - faster than any()
        if has_filtration(child):
            return True
    return False


# Vocabulary.


def iter_payloads(vocabulary):
    for section, default_type in SECTIONS.items():
        yield from walk_payloads(vocabulary.get(section), default_type, ())


def walk_payloads(node, default_type, path):
    if isinstance(node, list):
        for record in node:
            if isinstance(record, dict):
                yield record, path, default_type
    elif isinstance(node, dict):
        if node.get("name"):
            yield node, path, default_type
        else:
            for key, value in node.items():
                yield from walk_payloads(value, default_type, (*path, key))


def factory_from_catalog(module_path, class_name):
    if not module_path or not class_name:
        return None
    try:
        module = importlib.import_module(module_path)
    except ModuleNotFoundError:
        return None
    return getattr(module, class_name, None)


def build_store(vocabulary):
    siblings = importlib.import_module("quillstone.function_store")
    store = siblings.FunctionStore()
    for payload, path, default_type in iter_payloads(vocabulary):
        name = payload.get("name")
        if not name or store.has(name):
            continue
        function_type = payload.get("function_type") or default_type
        family = payload.get("function_family") or payload.get("family")
        if not family and path:
            family = path[0]
        subfamily = payload.get("function_subfamily") or payload.get("subfamily")
        if not subfamily and len(path) > 1:
            subfamily = path[1]
        module_path = str(payload.get("module_path") or "")
        class_name = str(payload.get("class_name") or "")
        try:
            entry = siblings.FunctionEntry(
                name=name,
                function_type=function_type,
                family=str(family or ""),
                subfamily=str(subfamily or ""),
                param_schema=payload.get("param_schema") or {},
                stateful=bool(payload.get("stateful")),
                arity=int(payload.get("arity") or 0),
                module_path=module_path,
                class_name=class_name,
                status=str(payload.get("status") or "approved"),
                creator_wallet=str(payload.get("creator_wallet") or ""),
                function_version=int(payload.get("function_version") or 1),
                engine_only=bool(payload.get("engine_only")),
                factory=factory_from_catalog(module_path, class_name),
            )
            store.add(entry)
        except Exception as error:
            logger.warning("Failed to register tokenized entry '%s': %s", name, error)
    return store


def is_vocabulary_artifact(path, named_universe=None):
    normalized = str(path).replace("\\", "/")
    if not normalized.endswith("/vocabulary.json"):
        return False
    return not named_universe or f"/{named_universe}/" in f"/{normalized}"


def vocabulary_refreshed(before, after, named_universe=None):
    before_pending, before_loaded = before
    after_pending, after_loaded = after
    for path, expected in before_pending.items():
        if not is_vocabulary_artifact(path, named_universe) or path in after_pending:
            continue
        if after_loaded.get(path) == expected and before_loaded.get(path) != expected:
            return True
    return False


# Options.


def plain_payload(value):
    if isinstance(value, dict):
        return {str(key): plain_payload(item) for key, item in value.items()}
    if isinstance(value, (list, tuple)):
        return [plain_payload(item) for item in value]
    return value


def coerce_rule_id(value):
    if value is None or isinstance(value, bool):
        return None
    if isinstance(value, str):
        text = value.strip()
        if not text.isdecimal():
            return None
        try:
            value = int(text)
        except ValueError:
            return None
    if isinstance(value, int):
        return value if value > 0 else None
    return None


def universe_options(era_config):
    allowed = set(getattr(era_config, "allowed_named_universes", None) or ())
    if not allowed:
        for pool in getattr(era_config, "signal_pools", None) or ():
            names = getattr(pool, "allowed_named_universes", None) or ()
            allowed.update(str(name) for name in names if name)
    rules = getattr(era_config, "universe_rules", None) or {}
    if not isinstance(rules, dict):
        return []
    options = []
    for key, rule in sorted(rules.items(), key=lambda entry: str(entry[0])):
        if not isinstance(rule, dict):
            continue
        name = str(key)
        rule_id = coerce_rule_id(rule.get("rule_id"))
        if rule_id is None or (allowed and name not in allowed):
            continue
        option = {"id": name, "named_universe": name, "rule_id": int(rule_id)}
        for field in ("market_id", "pool_id"):
            value = coerce_rule_id(rule.get(field))
            if value is not None:
                option[field] = int(value)
        options.append(option)
    return options


# Pools and signals.


def select_pool(era_config, expression_type, pool_id):
    strategy = expression_type == "STRATEGY"
    section = "strategy_pools" if strategy else "signal_pools"
    pools = era_config.get(section, [])
    if len(pools) == 0:
        raise ValueError(
            f"era_config must contain a '{section}' key with at least one pool definition."
        )
    pool_by_id = {}
    for pool in pools:
        for key in POOL_KEYS["STRATEGY" if strategy else "SIGNAL"]:
            identifier = pool.get(key)
            if identifier:
                pool_by_id.setdefault(identifier, pool)
    if pool_id not in pool_by_id:
        field = "strategy_pool_id" if strategy else "signal_pool_id"
        ids = [pool.get("pool_id") for pool in pools]
        accepted = ", ".join(f"{identifier}" for identifier in pool_by_id)
        raise ValueError(
            f"Unknown {field} '{pool_id}'. Available {section} ids: {ids}. "
            f"Valid {field} values include: {accepted}"
        )
    return pool_by_id[pool_id]


def metadata_for(signal_ref, metadata):
    if signal_ref in metadata:
        return metadata[signal_ref]
    text = str(signal_ref)
    found = metadata.get(text)
    if found is not None:
        return found
    for entry in metadata.values():
        for key in IDENTIFIER_KEYS:
            if entry.get(key) == text:
                return entry
    return None


# Transform stages, metrics and weights.


def stage_value(stage, name, default=None):
    if isinstance(stage, dict):
        return stage.get(name, default)
    return getattr(stage, name, default)


def option_uses_rescale(option, config=None):
    if option in RESCALING:
        return True
    if not isinstance(config, dict):
        return False
    if (config.get("rotation") or config.get("transform")) in RESCALING:
        return True
    composite = config.get("composite")
    if not isinstance(composite, (list, tuple)):
        return False
    for part in composite:
        if isinstance(part, dict):
            part = part.get("name") or part.get("rotation") or part.get("transform")
        elif not isinstance(part, str):
            continue
        if part in RESCALING:
            return True
    return False


def applies_rescale(stages, metaparameters):
    for stage in stages or ():
        name = stage_value(stage, "name")
        if isinstance(metaparameters, dict) and name in metaparameters:
            option = metaparameters[name]
        else:
            option = stage_value(stage, "default")
        configs = stage_value(stage, "option_configs")
        config = configs.get(option) if isinstance(configs, dict) else None
        if option_uses_rescale(option, config):
            return True
    return False


def tracking_metric(value, default=0.0):
    try:
        numeric = float(value)
    except (TypeError, ValueError, OverflowError):
        return default
    return numeric if math.isfinite(numeric) else default


def finalize_weights(weights):
    weights = np.asarray(weights, dtype=np.float64)
    if weights.ndim == 0:
        return weights
    out = np.nan_to_num(weights.copy(), nan=0.0, posinf=0.0, neginf=0.0)
    if out.ndim > 2:
        return np.ascontiguousarray(out, dtype=np.float64)
    rows = out.reshape(1, -1) if out.ndim == 1 else out
    gross = np.sum(np.abs(rows), axis=1)
    active = gross > 0.0
    if active.any():
        rows[active] /= gross[active, None]
    return np.ascontiguousarray(out, dtype=np.float64)

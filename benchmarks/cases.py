"""What is measured: inputs of realistic size, and the check that both versions agree on any."""

import json
import random
import tempfile
import time
from collections.abc import Callable
from dataclasses import asdict, dataclass, field
from itertools import pairwise
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import numpy as np

import plain
import plain_handle
import quillstone.simulate_signal as module
from quillstone._runtime import sdk_era_config_from_dict
from quillstone.function_store import FunctionStore
from quillstone.functions._typed_shapes import FunctionGraphNode

FACTORIES = {
    "quillstone.functions.cross_section": ("Rank", "ZScore", "Neutralise", "Residual", "Scale"),
    "quillstone.functions.arithmetic": ("Add", "Subtract", "Multiply"),
}
SECTION_SHARES = {"rotations": 0.7, "filtrations": 0.15, "reductions": 0.15}


@dataclass
class Case:
    """One measured rule.

    `statement` is what is timed, `shared` the names that it uses, and `plain` and `module` the
    names that differ between the two versions. `agree` raises unless both do the same on a random
    input.
    """

    name: str
    goal: float
    statement: str
    plain: dict[str, Any]
    module: dict[str, Any]
    agree: Callable[[random.Random], None]
    shared: dict[str, Any] = field(default_factory=dict)
    clock: Callable[[], float] = time.process_time


# Inputs.


def make_graph(size, rng, kinds=("rotation", "reduction")):
    """A random tree of `size` nodes, made operands first as graphs are."""

    def make(count):
        if count == 1:
            return FunctionGraphNode("feature", f"feature_{rng.randrange(50)}")
        operands = min(count - 1, rng.randint(1, 3))
        cuts = sorted(rng.sample(range(1, count - 1), operands - 1))
        counts = [after - before for before, after in pairwise([0, *cuts, count - 1])]
        children = [make(part) for part in counts]
        name = f"function_{rng.randrange(80)}"
        return FunctionGraphNode(rng.choice(kinds), name, children, {"window": count % 250})

    return make(size)


def make_payload(size, rng):
    """An engine catalog of about `size` values, containers included."""
    catalog = {"version": 3, "engines": []}
    count = 3
    while count < size:
        parameters = {
            f"parameter_{index}": {
                "type": rng.choice(["int", "float"]),
                "range": (0.0, rng.random()),
                "default": rng.random(),
                "choices": [rng.randint(1, 250) for _ in range(4)],
            }
            for index in range(5)
        }
        engine = {"name": f"engine_{count}", "stages": ("fill", "rank"), "limits": {1: 0.5, 2: 0.7}}
        catalog["engines"].append({**engine, "parameters": parameters})
        count += 10 + 5 * 11
    return catalog


def make_record(name, rng):
    module_path = rng.choice(list(FACTORIES))
    return {
        "name": name,
        "param_schema": {"window": {"type": "int", "default": 20, "min": 2, "max": 250}},
        "arity": rng.randint(1, 2),
        "module_path": module_path,
        "class_name": rng.choice(FACTORIES[module_path]),
        "stateful": False,
        "status": "approved",
        "function_version": 1,
    }


def make_vocabulary(size, rng):
    """Sections nested by family and subfamily, as they are synced."""
    vocabulary = {"era_id": 7, "features": {}, "metadata": {}}
    for section, share in SECTION_SHARES.items():
        count = int(size * share)
        families = max(1, int(count**0.5 / 8))
        tree = vocabulary[section] = {f"family_{index}": {} for index in range(families)}
        for index in range(count):
            subfamilies = tree[f"family_{index % families}"]
            subfamily = f"subfamily_{index // families % max(1, families)}"
            record = make_record(f"{section}_{index}", rng)
            subfamilies.setdefault(subfamily, []).append(record)
    return json.loads(json.dumps(vocabulary))  # in memory as it lies after loading


def make_era(rules, rng):
    names = [f"universe_{rng.randrange(10**6)}_{index}" for index in range(rules)]
    universe_rules = {
        name: {
            "rule_id": rng.choice([index + 1, str(index + 1)]),
            "market_id": rng.choice([None, 1, 2]),
            "pool_id": index % 9 + 1,
        }
        for index, name in enumerate(names)
    }
    pools = [{"pool_id": "p", "allowed_named_universes": names[: rules * 3 // 4]}]
    return {"era_id": 7, "universe_rules": universe_rules, "signal_pools": pools}


def make_pools(count):
    return {
        "signal_pools": [
            {
                "pool_id": f"pool-{index}",
                "name": f"Pool {index}",
                "signal_pool_name": f"signals_{index}",
                "allowed_named_universes": ["us_large"],
            }
            for index in range(count)
        ]
    }


def make_freshness(count, rng):
    """States in which nothing was refreshed; every fourth artifact is a vocabulary."""
    files = ("features/momentum.npy", "market/closes.npy", "pnl.npy", "vocabulary.json")
    paths = [f"data/universe_{index % 40}/{index}/{files[index % 4]}" for index in range(count)]
    pending = {path: f"{rng.getrandbits(256):064x}" for path in paths}
    loaded = {path: f"{rng.getrandbits(256):064x}" for path in paths}
    return (pending, loaded), ({}, dict(loaded))


def make_stages(count, last="none"):
    """Dictionaries and objects in turn; only the last may rescale."""
    stages = []
    for index in range(count):
        configs = {
            "none": {},
            "smooth": {"rotation": "rolling_mean", "window": 5},
            "chain": {"composite": ["rank", {"name": "winsorise"}, {"transform": "demean"}]},
        }
        stage = {"name": f"stage_{index}", "default": ("smooth", "chain")[index % 2]}
        stage["option_configs"] = configs
        stages.append(stage if index % 3 else SimpleNamespace(**stage))
    stages.append({"name": "last", "default": last, "option_configs": None})
    return stages


def make_metadata(count, rng):
    return {
        index: {
            "graph_hash": f"{rng.getrandbits(256):064x}",
            "submission_id": f"submission-{index}",
            "signal_pool_id": "p1",
            "sharpe": rng.random(),
        }
        for index in range(count)
    }


def make_weights(shape, seed, missing=0.001):
    rng = np.random.default_rng(seed)
    weights = rng.standard_normal(shape)
    weights[rng.random(shape) < missing] = np.nan
    return weights


# Collaborators that do nothing.


class Idle:
    """An object whose methods return what they were made to return, and do nothing else."""

    def __init__(self, answers=(), **attributes):
        for name, answer in dict(answers).items():
            setattr(self, name, lambda *args, _answer=answer, **kwargs: _answer)
        vars(self).update(attributes)


def make_kit(data_dir, found=(), sharpe=1.5, mi=0.5, correlation=0.3, structural_failed=False):
    """The collaborators of a run, and the list of what the tracker was told."""
    (Path(data_dir) / "shuffle_seed.enc").write_bytes(bytes(60))
    stats = SimpleNamespace(
        avg_turnover=0.25,
        delta_exposure=0.5,
        max_weight=0.125,
        liquidity_metrics={"adv": 2.0},
        custom_stats=None,
    )
    tested = SimpleNamespace(
        stats=stats,
        per_column_stats={"net_sharpe": sharpe, "net_returns": 0.1},
        factor_pnl="pnl",
        found_signal_ids=list(found),
        structural_failed=structural_failed,
    )
    gates = {"is_correlation_threshold": 0.7}
    limits = {"signal_is_thresholds": {"min_sharpe": 1.0}}
    strategy_limits = {"strategy_is_thresholds": {"min_sharpe": 1.2, "max_turnover": 0.5}}
    signal_pool = {
        "pool_id": "p1",
        "name": "alpha",
        "allowed_named_universes": ["top"],
        "universes": {3: limits},
        "is_pnl_mi_threshold": 0.1,
    }
    strategy_pool = {
        "pool_id": "s1",
        "name": "blend",
        "signal_pool_name": "p1",
        "universes": {3: strategy_limits},
        "strategy_is_pnl_mi_threshold": 0.2,
    }
    vocabulary = {name: {} for name in plain_handle.REQUIRED_KEYS}
    told = []
    tracker = SimpleNamespace(
        record_signal_evaluation=lambda **record: told.append(("SIGNAL", record)),
        record_strategy_evaluation=lambda **record: told.append(("STRATEGY", record)),
    )
    era = {
        "era_id": 7,
        "evaluation_pnl_columns": ["net"],
        "universe_rules": {"top": {"rule_id": 3}},
        "transform_pipeline": make_stages(2),
        "column_labels": ["net"],
        "signal_pools": [signal_pool | gates],
        "strategy_pools": [strategy_pool | gates],
    }
    backtester = Idle(
        {
            "initialize_era_vault": None,
            "init_reconstruction": None,
            "evaluate_expression": SimpleNamespace(weights="weights"),
            "run_backtest": tested,
        },
        evaluator=Idle({"evaluate": None}),
        search_plan_factory=None,
    )
    sync_answers = {"acquire": None, "release": None, "request_for_sync": None}
    kit = {
        "auth": Idle({"get_wallet_secret": "secret"}),
        "sync_manager": Idle(
            {**sync_answers, "get_manifest": {"era_id": 7}},
            _data_dir=str(data_dir),
            total_bytes=0,
            feature_dir="features",
        ),
        "vault": Idle({"init_if_needed": None, "universe_mask": "mask"}),
        "backtester": backtester,
        "search_tracker": tracker,
        "era_thread": Idle({"get_current_era_id": 7}),
        "graph_validator": Idle({"validate": None}),
        "era_config": era,
        "load_vocabulary": lambda era_id: vocabulary,
        "vocabulary": FunctionStore(),
        "useful_signals": ["u1"],
        "useful_signal_pool": {"u1": "array"},
        "useful_signal_metadata": {"u1": {"id": "u1", "signal_pool_id": "p1"}},
        "found_signal_pool": dict.fromkeys(found, "entry"),
        "load_found_signal_pnl": lambda name, pool_name: "pnl",
        "signal_dir": "signals",
        "correlate_per_pool": lambda **keywords: correlation,
        "compute_mi_per_pool": lambda **keywords: (mi, "detail"),
    }
    return kit, told


def wire(kit):
    """Give both versions the same collaborators."""
    module.init_simulate_signal(**kit)
    unused = dict.fromkeys(("batch_orchestrator", "compute_search_plan", "set_phase"))
    plain_handle.wire(**(unused | kit))


# Agreement on random input.


def same_outcome(ours, theirs, *arguments):
    """Both return the same, or both raise the same type of error with the same text."""
    outcomes = []
    for function in (ours, theirs):
        try:
            outcomes.append(function(*arguments))
        except Exception as error:
            outcomes.append((type(error), str(error)))
    assert outcomes[0] == outcomes[1], outcomes


def agree_on_graphs(ours, theirs):
    def agree(rng):
        kinds = ["rotation"] * 200 + ["filtration", "aggregation"] * rng.randint(0, 1)
        same_outcome(ours, theirs, make_graph(rng.randint(2, 600), rng, kinds))

    return agree


def agree_on_payloads(rng):
    def value(depth):
        kind = rng.randint(0, 7) if depth < 6 else 0
        if kind == 1:
            return tuple(value(depth + 1) for _ in range(rng.randint(0, 4)))
        if kind == 2:
            return [value(depth + 1) for _ in range(rng.randint(0, 4))]
        if kind in (3, 4):
            keys = ("a", 1, None, 2.5, (1, 2))
            return {rng.choice(keys): value(depth + 1) for _ in range(rng.randint(0, 5))}
        return rng.choice([None, True, 1, 0.5, "text", frozenset()])

    payload = [value(0) for _ in range(8)]
    same_outcome(plain.plain_payload, module._plain_engine_definition_payload, payload)


def random_tree(rng, depth=0):
    kind = rng.randint(0, 9)
    if kind < 2 or depth == 4:
        return rng.choice([None, "text", 3, (), {}, ({"name": "in a tuple"},)])
    if kind < 5:
        names = ("f", "g", "h", "", None)
        records = [
            {
                "name": rng.choice(names),
                "arity": rng.choice([None, 1, "2", "x", -1]),
                "family": rng.choice([None, "", "own"]),
                "function_subfamily": rng.choice([None, 5]),
                "status": rng.choice(["", "draft"]),
                "module_path": rng.choice(["", "no.such.module", *FACTORIES]),
                "class_name": rng.choice(["Rank", "Add", "NoSuchClass"]),
            }
            for _ in range(rng.randint(0, 5))
        ]
        return rng.choice([records, [*records, "no record"], dict(enumerate(records))])
    return {rng.choice(["a", "b", 3, None]): random_tree(rng, depth + 1) for _ in range(4)}


def random_vocabulary(rng):
    return {section: random_tree(rng) for section in plain.SECTIONS if rng.random() < 0.9}


def agree_on_walks(rng):
    vocabulary = random_vocabulary(rng)
    same_outcome(
        lambda raw: list(plain.iter_payloads(raw)),
        lambda raw: list(module._iter_synced_function_payloads(raw)),
        vocabulary,
    )


def agree_on_stores(rng):
    same_outcome(
        lambda raw: list(plain.build_store(raw)),
        lambda raw: list(module._build_obfuscated_store(raw)),
        random_vocabulary(rng),
    )


def agree_on_options(rng):
    ids = (None, True, 0, -3, 4, " 12 ", "x", "", 2.5, [])
    keys = ("top", "b", 10, "10 ", 2, None)
    rules = {
        rng.choice(keys): {key: rng.choice(ids) for key in ("rule_id", "market_id", "pool_id")}
        for _ in range(6)
    }
    rules["no rule"] = rng.choice([None, []])
    names = [str(key) for key in keys if rng.random() < 0.4]
    pools = [SimpleNamespace(allowed_named_universes=[*names, None])]
    era = SimpleNamespace(universe_rules=rng.choice([rules, rules, [], None]))
    setattr(era, *rng.choice([("signal_pools", pools), ("allowed_named_universes", names)]))
    same_outcome(plain.universe_options, module._universe_options, era)


def agree_on_pools(rng):
    kind = rng.choice(["SIGNAL", "STRATEGY"])
    names = ("a", "b", "c", "", None)
    keys = {key for keys in plain.POOL_KEYS.values() for key in keys}
    pools = [{key: rng.choice(names) for key in keys} for _ in range(rng.randint(0, 4))]
    era = {"signal_pools": pools, "strategy_pools": pools}
    same_outcome(plain.select_pool, module._selected_pool_config, era, kind, rng.choice("abcd"))


def agree_on_freshness(rng):
    paths = [f"{root}/vocabulary.json" for root in ("top", "data/top", "data\\top", "data/other")]
    paths += ["vocabulary.json", "top/pnl.npy"]

    def hashes():
        return {path: rng.choice("xyz") for path in paths if rng.random() < 0.7}

    states = [(hashes(), hashes()) for _ in range(2)]
    universe = rng.choice([None, "", "top"])
    same_outcome(
        plain.vocabulary_refreshed, module._runtime_vocabulary_refreshed, *states, universe
    )


def agree_on_stages(rng):
    def transform():
        return rng.choice([None, "", "rank", "rank", "rank", *plain.RESCALING])

    def option_config():
        keys = ("rotation", "transform", "name")
        parts = [transform(), {key: transform() for key in keys if rng.random() < 0.5}, 3]
        composite = rng.choice([None, parts, tuple(parts), "rescale"])
        config = {"rotation": transform(), "transform": transform(), "composite": composite}
        return rng.choice([None, config, {}])

    stages = make_stages(rng.randint(0, 5), rng.choice(["none", "rescale"]))
    stages.append({"name": "own", "default": "x", "option_configs": {"x": option_config()}})
    chosen = {"last": rng.choice(["none", "l1_resize"]), "stage_0": "none"}
    same_outcome(
        plain.applies_rescale, module._pipeline_applies_rescale, stages, rng.choice([None, chosen])
    )


def agree_on_metadata(rng):
    keys = (*plain.IDENTIFIER_KEYS, "name")
    metadata = {
        rng.choice([1, 2, "1", "x", "y"]): rng.choice(
            [{key: rng.choice(["1", "3", 3, "z", None]) for key in keys}] * 5 + [{}]
        )
        for _ in range(4)
    }
    ref = rng.choice([1, 3, "x", "z", "3", None])
    same_outcome(plain.metadata_for, module._metadata_for_signal_ref, ref, metadata)


def agree_on_metrics(rng):
    values = (None, True, 1.5, 7, "1.5", " x", "nan", 1e400, -1e400, 10**400, [], rng.random())
    for value in values:
        same_outcome(plain.tracking_metric, module._tracking_metric, value)


def agree_on_weights(rng):
    shape = tuple(rng.randint(0, 300) for _ in range(rng.randint(0, 3)))
    if len(shape) == 3:
        shape = tuple(size // 30 for size in shape)
    generator = np.random.default_rng(rng.getrandbits(32))
    weights = generator.standard_normal(shape) * 10.0 ** generator.integers(-9, 9, shape)
    weights = np.where(generator.random(shape) < rng.choice([0, 0.01, 0.5]), np.nan, weights)
    weights = np.where(generator.random(shape) < 0.01, -np.inf, weights)
    weights = np.asarray(weights, order=rng.choice("CF"))
    expected, found = plain.finalize_weights(weights), module._finalize_rescaled_weights(weights)
    assert expected.tobytes() == found.tobytes()
    assert (expected.shape, expected.dtype) == (found.shape, found.dtype)


RESULT_FIELDS = tuple(plain_handle.Result.__dataclass_fields__)
TIMED = "expression_elapsed_seconds"


def agree_on_handles(rng):
    with tempfile.TemporaryDirectory() as data_dir:
        kit, told = make_kit(
            data_dir,
            found=rng.sample(["f1", "f2"], rng.randint(0, 2)),
            sharpe=rng.choice([0.5, 1.5, 1.5]),
            mi=rng.choice([0.05, 0.5, float("nan"), True]),
            correlation=rng.choice([0.3, 0.9]),
            structural_failed=rng.random() < 0.2,
        )
        phases = []
        wire(kit | {"set_phase": phases.append})
        kind = rng.choice(["signal", "strategy"])
        leaf = FunctionGraphNode("feature", "close")
        graph = FunctionGraphNode(rng.choice(["rotation", "filtration"]), "f", [leaf])
        switches = ("include_correlation", "include_mi", "record", "fail_fast")
        options = {switch: rng.random() < 0.7 for switch in switches}
        options[f"{kind}_pool_id"] = {"signal": "p1", "strategy": "s1"}[kind]
        outcomes = []
        for version in (plain_handle, module):
            phases.clear()
            told.clear()
            handle = getattr(version, f"simulate_{kind}")(graph, "top", **options)
            try:
                result = handle.result()
                outcome = {name: getattr(result, name) for name in RESULT_FIELDS if name != TIMED}
            except ValueError:
                outcome = {"refused": True}
            status = asdict(handle.status()) | {"elapsed_s": None}
            if "refused" in outcome:
                status["message"] = None  # the plain version words its errors as it likes
            records = [(kind, record | {TIMED: None}) for kind, record in told]
            outcomes.append((outcome, status, list(phases), records))
        assert outcomes[0] == outcomes[1], outcomes


# The cases.


def rule(name, goal, ours, theirs, arguments, agree, statement="rule(*arguments)"):
    """A case that calls one function with fixed arguments."""
    names = [f"argument_{index}" for index in range(len(arguments))]
    statement = statement.replace("*arguments", ", ".join(names))
    shared = dict(zip(names, arguments, strict=True))
    return Case(name, goal, statement, {"rule": ours}, {"rule": theirs}, agree, shared)


def make_cases(data_dir):
    """Every measured rule, in the order of the table; `data_dir` is for the handle's seed."""
    rng = random.Random(1)
    graph = make_graph(87_000, rng)
    vocabulary = make_vocabulary(20_000, rng)
    era = sdk_era_config_from_dict(make_era(10_000, rng))
    stages = make_stages(50)
    kit, _ = make_kit(data_dir)
    wire(kit)
    small = FunctionGraphNode("rotation", "rank", [FunctionGraphNode("feature", "close")])
    request = {"graph": small}
    handles = {
        version: version.simulate_signal(small, "top", signal_pool_id="p1")
        for version in (plain_handle, module)
    }
    for handle in handles.values():
        handle.result()
    walk = "for item in rule(*arguments): pass"
    return [
        rule(
            "aggregation check",
            3,
            plain.reject_aggregation,
            module._reject_public_aggregation_graph,
            (graph,),
            agree_on_graphs(plain.reject_aggregation, module._reject_public_aggregation_graph),
        ),
        rule(
            "filtration search",
            3,
            plain.has_filtration,
            module._has_filtration_runtime_graph,
            (graph,),
            agree_on_graphs(plain.has_filtration, module._has_filtration_runtime_graph),
        ),
        rule(
            "engine payload",
            6,
            plain.plain_payload,
            module._plain_engine_definition_payload,
            (make_payload(40_000, rng),),
            agree_on_payloads,
        ),
        rule(
            "vocabulary walk",
            5,
            plain.iter_payloads,
            module._iter_synced_function_payloads,
            (vocabulary,),
            agree_on_walks,
            walk,
        ),
        rule(
            "function store",
            2,
            plain.build_store,
            module._build_obfuscated_store,
            (vocabulary,),
            agree_on_stores,
        ),
        rule(
            "universe options",
            4,
            plain.universe_options,
            module._universe_options,
            (era,),
            agree_on_options,
        ),
        rule(
            "pool selection",
            3,
            plain.select_pool,
            module._selected_pool_config,
            (make_pools(200), "SIGNAL", "Pool 150"),
            agree_on_pools,
        ),
        rule(
            "refreshed test",
            3,
            plain.vocabulary_refreshed,
            module._runtime_vocabulary_refreshed,
            (*make_freshness(10_000, rng), "universe_3"),
            agree_on_freshness,
        ),
        rule(
            "rescale test",
            3,
            plain.applies_rescale,
            module._pipeline_applies_rescale,
            (stages, {"stage_7": "none", "stage_8": "smooth"}),
            agree_on_stages,
        ),
        rule(
            "metadata scan",
            3,
            plain.metadata_for,
            module._metadata_for_signal_ref,
            ("submission-4999", make_metadata(5_000, rng)),
            agree_on_metadata,
        ),
        Case(
            "status",
            2,
            "handle.status()",
            {"handle": handles[plain_handle]},
            {"handle": handles[module]},
            agree_on_handles,
        ),
        Case(
            "whole handle",
            1.5,
            "simulate(graph, 'top', signal_pool_id='p1').result()",
            {"simulate": plain_handle.simulate_signal},
            {"simulate": module.simulate_signal},
            agree_on_handles,
            request,
            time.perf_counter,
        ),
        rule(
            "tracking metric",
            1,
            plain.tracking_metric,
            module._tracking_metric,
            (1.5,),
            agree_on_metrics,
        ),
        rule(
            "weights 2500 x 3000",
            5,
            plain.finalize_weights,
            module._finalize_rescaled_weights,
            (make_weights((2500, 3000), 1),),
            agree_on_weights,
        ),
        rule(
            "weights 20 x 100",
            2,
            plain.finalize_weights,
            module._finalize_rescaled_weights,
            (make_weights((20, 100), 2),),
            agree_on_weights,
        ),
    ]

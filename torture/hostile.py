"""Objects that lie, raise, change what is being walked and call back; endless and deep input."""

import copy
import faulthandler
import time
import types

from hypothesis import HealthCheck, Phase, given, seed, settings
from hypothesis import strategies as st

import common
import quillstone.simulate_signal as module
from collaborators import PATIENCE, Kit, chain, dismantle, node, set_children, vocabulary
from quillstone.errors import SdkRuntimeNotReadyError
from quillstone.sync import EraError

WATCHDOG = 60.0
DEPTH = 1_000_000


class Boom(Exception):
    """What hostile objects raise."""


class Bang(BaseException):
    """The same, not for `except Exception`."""


RULES = (AttributeError, KeyError, TypeError, ValueError, OverflowError, RuntimeError,
         SdkRuntimeNotReadyError, EraError, StopIteration, ImportError)  # fmt: skip
ALLOWED = (Boom, Bang, module.CancelledError, *RULES)


def call_back():
    """The module, from within one of its own steps."""
    module._tracking_metric(object())
    module._plain_engine_definition_payload({"a": [1]})
    module._has_filtration_runtime_graph(node())
    list(module._iter_synced_function_payloads({"rotations": {"name": "r"}}))


class Hostile:
    """Every operation does one of a drawn list of mischiefs, in turn."""

    def __init__(self, acts, gifts, victims):
        vars(self).update(acts=acts, gifts=gifts, victims=victims, turn=0)

    def _answer(self, usual=None):
        mine = vars(self)
        mine["turn"] += 1
        act = mine["acts"][mine["turn"] % len(mine["acts"])]
        if act == "raise" or mine["turn"] > 200:
            raise Boom
        if act == "bang":
            raise Bang
        if act == "call back":
            call_back()
        if act == "mutate":
            for victim in mine["victims"]:
                if isinstance(victim, dict):
                    victim.clear() if len(victim) > 3 else victim.update({mine["turn"]: self})
                elif isinstance(victim, list):
                    victim.clear() if len(victim) > 3 else victim.append(self)
        if act == "gift" and mine["gifts"]:
            return mine["gifts"][mine["turn"] % len(mine["gifts"])]
        return usual

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        return self._answer()

    def __eq__(self, other):
        return self._answer(True)

    def __hash__(self):
        self._answer()
        return 7

    def __bool__(self):
        return bool(self._answer(True))

    def __str__(self):
        return str(self._answer("text"))

    def __call__(self, *args, **kwargs):
        return self._answer()

    def __iter__(self):
        return iter(self._answer([self]))

    def __len__(self):
        self._answer()
        return 2

    def __getitem__(self, key):
        return self._answer()

    def keys(self):
        return self._answer(["name", 3])

    def items(self):
        return self._answer([("name", "x")])

    def get(self, key, fallback=None):
        return self._answer(fallback)

    __gt__ = __lt__ = __ge__ = __contains__ = __eq__
    __fspath__ = __str__
    strip = lower = keys
    __repr__ = object.__repr__  # hypothesis reports with it


class LyingDict(dict):
    """A dictionary whose methods do not agree with its contents."""

    mischief = None
    get = items = keys = __iter__ = __contains__ = lambda self, *a: self.mischief._answer()


WORDS = """name type children pool_id signal_pools strategy_pools universes universe_rules rule_id
    rotations filtrations reductions features metadata era_id id signal_pool_name default
    named_universe allowed_named_universes engine_definitions evaluation_pnl_columns weights
    option_configs composite rotation signal_pool_id transform_pipeline column_labels rescale
    pending_data_artifact_shas loaded_data_artifact_shas snapshot is_pnl_mi_threshold top p1 s1
    a/vocabulary.json SIGNAL STRATEGY signal strategy ../q""".split()  # noqa: SIM905
plain = st.one_of(
    st.sampled_from([*WORDS, None, True, 0, 3, -1, 10**400, 1.5, float("nan"), "", "\ud800",
                     "x\0", "٣", b"q" * 60, ()]),
    st.integers(), st.text(max_size=4),
)  # fmt: skip
MISCHIEF = ["usual", "gift", "raise", "bang", "mutate", "call back"]
acts = st.lists(st.sampled_from(MISCHIEF), min_size=1, max_size=5)


@st.composite
def values(draw):
    """A tangle of containers and hostile objects, cycles among them."""
    pool = [draw(plain), draw(plain)]
    containers = []
    for kind in draw(st.lists(st.sampled_from("dltnhy"), max_size=8)):
        picks = draw(st.lists(st.integers(0, len(pool) - 1), max_size=4))
        some = [pool[pick] for pick in picks]
        if kind == "d":
            new = {draw(st.sampled_from(WORDS)): item for item in some}
        elif kind == "l":
            new = some
        elif kind == "t":
            new = tuple(some)
        elif kind == "n":
            names = st.sampled_from(WORDS)
            new = types.SimpleNamespace(**{draw(names): item for item in some})
        elif kind == "h":
            new = Hostile(draw(acts), some, containers)
        else:
            new = LyingDict({draw(st.sampled_from(WORDS)): item for item in some})
            new.mischief = Hostile(draw(acts), some, containers)
        pool.append(new)
        if isinstance(new, dict | list):
            containers.append(new)
    if containers and draw(st.booleans()):
        first = containers[0]
        if isinstance(first, list):
            first.append(pool[-1])
        else:
            dict.__setitem__(first, draw(st.sampled_from(WORDS)), pool[-1])
    return pool[-1]


STAGE = {"name": "s", "default": "x", "option_configs": {"x": {"composite": [{"name": "rescale"}]}}}
SIGNAL_POOL = {
    "pool_id": "p1", "name": "alpha", "allowed_named_universes": ["top"],
    "universes": {3: {"signal_is_thresholds": {"sharpe": 1.0}}}, "is_pnl_mi_threshold": 0.1,
}  # fmt: skip
STRATEGY_POOL = {"pool_id": "s1", "signal_pool_name": "p1", "universes": {"3": {"rule_id": 3}}}
WELL_FORMED = {
    "era": {
        "era_id": 7, "evaluation_pnl_columns": ["net"], "universe_rules": {"top": {"rule_id": 3}},
        "transform_pipeline": [STAGE], "column_labels": ["net"], "signal_pools": [SIGNAL_POOL],
        "strategy_pools": [STRATEGY_POOL], "engine_definitions": vocabulary(rotations={"r": {}}),
    },
    "pool_cfg": STRATEGY_POOL | SIGNAL_POOL,
    "vocabulary": vocabulary(rotations={"r": {"name": "r"}}, features=[{"name": "f", "sub": {}}]),
    "useful_signals": ["u1", "u2"],
    "useful_signal_metadata": {"u1": {"id": "u1", "signal_pool_id": "p1"}},
    "metadata": {"id": "u1", "signal_pool_id": "p1"},
    "transform_pipeline": [STAGE, {"name": "t", "default": "rescale"}],
    "stage": STAGE,
    "option_config": {"composite": ["x", {"transform": "l1_resize"}]},
    "state": ({"top/vocabulary.json": "a"}, {"top/vocabulary.json": "b"}),
    "thresholds": {"sharpe": 1.0},
    "metrics": {"net_sharpe": 1.5, "net_returns": 0.1},
    "column_stats": {"net_sharpe": 1.5, "net_returns": 0.1},
    "weights": [[1.0, float("nan")], [-2.5, 0.0]],
    "expression_type": "SIGNAL",
    "pool_id": "p1",
    "universe": "top",
}  # fmt: skip


@st.composite
def spoiled(draw, name):
    """What a parameter of this name is given, as a rule, with up to three places replaced."""
    fitting = [part for part in WELL_FORMED if part in name]
    if not fitting or not draw(st.integers(0, 3)):
        return draw(values())
    whole = copy.deepcopy(WELL_FORMED[max(fitting, key=len)])
    for _ in range(draw(st.integers(0, 3))):
        place = whole
        while type(place) in (dict, list) and place:
            key = draw(st.sampled_from(list(place) if type(place) is dict else range(len(place))))
            if type(place[key]) not in (dict, list) or not draw(st.integers(0, 2)):
                place[key] = draw(values())
                break
            place = place[key]
    return whole


# The last hands its argument on to `inspect` as it is.
SKIPPED = {"init_simulate_signal", "simulate_signal", "simulate_strategy", "_import_typed_shapes",
           "_import_graph_validator_runtime", "_pool_v2_signature"}  # fmt: skip
own = sorted(
    name
    for name, item in vars(module).items()
    if type(item) is type(module._tracking_metric) and item.__module__ == module.__name__
    and name not in SKIPPED
)  # fmt: skip


def complaint(error):
    if isinstance(error, SystemError) or not isinstance(error, ALLOWED):
        return f"{type(error).__name__}: {error!s:.200}"
    return None


def call_function(data):
    name = data.draw(st.sampled_from(own))
    function = getattr(module, name)
    required = [p for p in function.__signature__.parameters.values() if p.default is p.empty]
    arguments = [data.draw(spoiled(p.name)) for p in required]
    try:
        outcome = function(*arguments)
        if hasattr(outcome, "__next__"):
            for _, _ in zip(range(1000), outcome, strict=False):
                pass
    except BaseException as error:
        return complaint(error) and f"{name}: {complaint(error)}"
    return None


def run_simulation(data):
    """A whole run with hostile objects in several places of what is wired in."""
    kit = Kit(FOLDER, data.draw(st.sampled_from(["backtest", "run_backtest"])))
    kit.tested.found_signal_ids = ["f1"]
    kind = data.draw(st.sampled_from(["signal", "strategy"]))
    graph = None
    for place in data.draw(st.lists(st.sampled_from(PLACES), min_size=1, max_size=3)):
        value = data.draw(values())
        if place == "graph":
            graph = set_children(node("rotation"), value)
        elif place == "answer":
            answers = ["load_vocabulary", "get_manifest", "validate", "compute_mi_per_pool",
                       "correlate_per_pool", "get_current_era_id", "backtest"]  # fmt: skip
            kit.script.on(data.draw(st.sampled_from(answers)), lambda *_, v=value, **__: v)
        else:
            holder, key = place
            holder = getattr(kit, holder)
            holder = holder if isinstance(holder, dict) else vars(holder)
            holder[data.draw(st.sampled_from(sorted(holder))) if key is None else key] = value
    try:
        handle = kit.start(kind, graph)
    except BaseException as error:
        return complaint(error)
    handle._thread.join(PATIENCE)
    if handle._thread.is_alive():
        return "no end"
    if (handle._result is None) == (handle._error is None) or not handle._done_event.is_set():
        return f"outcome {handle._result}, {handle._error}"
    if handle._lock.locked() or module._sync_lock.locked() or module._sync_in_progress:
        return "a lock is held or a sync left"
    return handle._error is not None and complaint(handle._error)


PLACES = [("era", None), ("signal_pool", None), ("strategy_pool", None), ("tested", None),
          ("evaluated", None), ("stats", None), ("pieces", None), ("era", "transform_pipeline"),
          ("pieces", "runtime_freshness_guard"), ("pieces", "useful_signal_metadata"),
          ("era", "universe_rules"), "graph", "answer"]  # fmt: skip
FOLDER = common.scratch()


def fuzz(title, attempt, examples, number):
    """Try drawn inputs, each against a watchdog; the first that breaks a rule is made small."""
    tried = worst = 0

    @seed(number)
    @settings(max_examples=examples, deadline=None, database=None, print_blob=False,
              phases=[Phase.generate, Phase.shrink],
              suppress_health_check=list(HealthCheck))  # fmt: skip
    @given(st.data())
    def one(data):
        nonlocal tried, worst
        faulthandler.dump_traceback_later(WATCHDOG, exit=True)
        begun = time.monotonic()
        problem = attempt(data)
        worst = max(worst, time.monotonic() - begun)
        tried += 1
        assert not problem, problem

    try:
        one()
        failed = 0
    except AssertionError as error:
        failed = 1
        common.complain(error, *getattr(error, "__notes__", ()))
    finally:
        faulthandler.cancel_dump_traceback_later()
    common.figures(title, tried, failed, worst, f"seed {number}")


def nested(make, depth=DEPTH):
    value = make(None)
    for _ in range(depth):
        value = make(value)
    return value


def run_to_the_end(payload):
    kit = Kit(FOLDER)
    kit.script.on("load_vocabulary", lambda era_id: payload)
    kit.pieces["vocabulary"] = None
    kit.run()


def deep(quick):
    graph = chain(DEPTH, node())
    cycle = node("rotation")
    set_children(cycle, (node(), cycle))
    lists, dicts = nested(lambda v: [v]), nested(lambda v: {"deeper": v})
    loop = {"name": "x"}
    loop["again"] = [loop]
    # The kit converts it, in Python and not quickly.
    raw_depth = DEPTH // 10 if quick else DEPTH
    top = {"type": "rotation", "name": "x"}
    raw = nested(lambda v: {**top, "children": [v] if v else []}, raw_depth)
    m = module
    jobs = [("graph", lambda: m._has_filtration_runtime_graph(graph)),
            ("graph", lambda: m._reject_public_aggregation_graph(graph)),
            ("graph", lambda: Kit(FOLDER).run(graph=graph)),
            ("raw graph", lambda: dismantle(m._typed_runtime_graph(raw))),
            ("cyclic graph", lambda: m._has_filtration_runtime_graph(cycle)),
            ("cyclic graph", lambda: Kit(FOLDER).run(graph=cycle))]  # fmt: skip
    for what, payload in (("lists", lists), ("dicts", dicts), ("cyclic payload", loop)):
        synced = vocabulary(rotations=payload)
        options = {
            "era_id": 7,
            "engine_definitions": payload,
            "universe_rules": payload,
            "signal_pools": [payload, {"pool_id": "p1", "universes": payload}],
        }
        jobs += [(what, lambda p=payload: m._plain_engine_definition_payload(p)),
                 (what, lambda s=synced: list(m._iter_synced_function_payloads(s))),
                 (what, lambda s=synced: m._build_obfuscated_store(s)),
                 (what, lambda o=options: m.effective_simulation_options(o)),
                 (what, lambda s=synced: run_to_the_end(s))]  # fmt: skip
    worst, failed, ends = 0.0, 0, {}
    for what, action in jobs:
        faulthandler.dump_traceback_later(WATCHDOG, exit=True)
        begun, end = time.monotonic(), "returned"
        try:
            action()
        except BaseException as error:
            end = type(error).__name__
            failed += bool(problem := complaint(error))
            if problem:
                common.complain(what, problem)
        worst = max(worst, time.monotonic() - begun)
        ends[end] = ends.get(end, 0) + 1
    faulthandler.cancel_dump_traceback_later()
    dismantle(graph)
    note = f"depth {DEPTH:,}; " + ", ".join(f"{count} {end}" for end, count in ends.items())
    common.figures("graphs and payloads without end or very deep", len(jobs), failed, worst, note)


def promise(quick, random):
    common.quiet()
    deep(quick)
    number = random.randrange(1_000_000)
    fuzz("calls of every function", call_function, 1500 if quick else 10_000, number)
    fuzz("runs with hostile collaborators, data", run_simulation, 300 if quick else 2_000, number)


if __name__ == "__main__":
    common.main(promise)

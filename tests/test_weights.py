"""Transform stages, finalized weights bit for bit, and where they are installed."""

import array
from types import SimpleNamespace

import numpy as np
import pytest

import quillstone.simulate_signal as qs
from quillstone.functions._typed_shapes import StageData

RESCALING = ("rescale", "latitudinal_fill_c3d683", "l1_resize")
WIDTHS = [*range(18), 31, 33, 63, 64, 65, 127, 128, 129, 135, 136, 137, 255, 256, 257, 264, 511,
          513, 1000, 1023, 1024, 1025, 4099]  # fmt: skip
SPECIAL = [np.nan, np.inf, -np.inf, 0.0, -0.0, 5e-324, -1e-310, 1e308, -1e308, 1e-300, 3.0]


def composed(weights):
    """What NumPy makes of the weights, written as the rule reads."""
    arr = np.asarray(weights, dtype=np.float64)
    if arr.ndim == 0:
        return arr
    out = np.nan_to_num(arr.copy(), nan=0.0, posinf=0.0, neginf=0.0)
    rows = {1: out.reshape(1, -1), 2: out}.get(out.ndim)
    if rows is not None:
        gross = np.sum(np.abs(rows), axis=1)
        active = gross > 0.0
        rows[active] = rows[active] / gross[active][:, None]
    return np.ascontiguousarray(out, dtype=np.float64)


def check(weights):
    with np.errstate(all="ignore"):
        expected = composed(weights)
        before = weights.tobytes() if isinstance(weights, np.ndarray) else None
        got = qs._finalize_rescaled_weights(weights)
    assert type(got) is np.ndarray
    assert (got.dtype, got.shape) == (np.dtype(np.float64), expected.shape)
    assert got.flags.c_contiguous
    assert got.flags.writeable or not got.ndim
    assert got.tobytes() == expected.tobytes()
    if before is not None:
        assert weights.tobytes() == before
        assert not got.ndim or not np.shares_memory(got, weights)
    return got


def wide_range(rng, shape):
    """Numbers of very different size, so that the order of summation shows in the last bits."""
    return rng.standard_normal(shape) * 10.0 ** rng.integers(-12, 12, shape)


@pytest.mark.parametrize("width", WIDTHS)
def test_row_sums_of_every_width(width):
    rng = np.random.default_rng(width)
    check(wide_range(rng, width))
    for rows in (0, 1, 2, 3, 7):
        weights = wide_range(rng, (rows, width))
        check(weights)
        check(np.asfortranarray(weights))
        weights[rng.random(weights.shape) < 0.3] = np.nan
        weights[::2] = 0.0
        check(weights)


@pytest.mark.parametrize("shape", [(), (1,), (5,), (0, 0), (4, 0), (0, 4), (3, 4), (2, 3, 4),
                                   (2, 0, 3), (2, 2, 2, 2), (1, 1), (130, 3)])  # fmt: skip
def test_special_values_in_every_rank(shape):
    rng = np.random.default_rng(1)
    for _ in range(20):
        weights = rng.choice(SPECIAL, shape)
        check(weights)
        check(np.asarray(weights, order="F"))
    assert not check(np.full(shape or 1, np.nan)).any()


LAYOUTS = {
    "c order": lambda a: a,
    "fortran": np.asfortranarray,
    "transposed": lambda a: np.ascontiguousarray(a.T).T,
    "rows reversed": lambda a: a[::-1],
    "columns reversed": lambda a: a[:, ::-1],
    "both reversed": lambda a: a[::-1, ::-1],
    "every second row": lambda a: a[::2],
    "every third column": lambda a: a[:, 1::3],
    "wide strides": lambda a: a[::-3, ::-2],
    "one column": lambda a: a[:, 3],
    "one row reversed": lambda a: a[2, ::-1],
    "broadcast row": lambda a: np.broadcast_to(a[0], a.shape),
    "broadcast column": lambda a: np.broadcast_to(a[:, :1], a.shape),
    "byte-swapped": lambda a: a.astype(">f8"),
    "float32": lambda a: a.astype(np.float32),
    "float16": lambda a: a.clip(-9, 9).astype(np.float16),
    "int64": lambda a: a.clip(-1e9, 1e9).astype(np.int64),
    "int8": lambda a: a.clip(-99, 99).astype(np.int8),
    "bool": lambda a: a > 0,
    "objects": lambda a: a.astype(object),
    "strings of digits": lambda a: a.clip(-9, 9).round(3).astype(str),
    "unaligned": lambda a: np.frombuffer(b"x" + a.tobytes(), offset=1).reshape(a.shape),
    "record field": lambda a: np.rec.fromarrays([a, a], names="x,y")["x"],
    "swapped axes": lambda a: a.reshape(8, 5, -1).swapaxes(0, 2),
    "matrix": lambda a: a.view(np.matrix),
    "masked": lambda a: np.ma.masked_less(a, 0),
    "lists": lambda a: a.tolist(),
    "tuple of rows": lambda a: tuple(a),
    "memoryview": memoryview,
    "array module": lambda a: array.array("d", a[0]),
}


@pytest.mark.parametrize("layout", LAYOUTS)
def test_any_memory_order_and_type(layout):
    rng = np.random.default_rng(7)
    weights = LAYOUTS[layout](wide_range(rng, (40, 137)))
    check(weights)
    if isinstance(weights, np.ndarray):
        weights.flags.writeable = False
        check(weights)


def test_large_weights():
    rng = np.random.default_rng(3)
    weights = wide_range(rng, (1500, 1001))
    weights[rng.random(weights.shape) < 0.01] = np.inf
    check(weights)
    check(weights.T)


def test_scalars_are_returned_as_they_are():
    scalar = np.array(np.nan)
    assert qs._finalize_rescaled_weights(scalar) is scalar
    for value in (3, -2.5, True, np.float32(1.5), "7", None):
        got = qs._finalize_rescaled_weights(value)
        assert got.tobytes() == np.asarray(value, dtype=np.float64).tobytes()
        assert (got.shape, got.dtype) == ((), np.float64)


@pytest.mark.parametrize("bad", ["x", ["a", "b"], {}, object(), [[1.0], [1.0, 2.0]], [1j], [{}]])
def test_unusable_weights_fail_as_in_numpy(bad):
    outcomes = []
    for convert in (lambda: np.asarray(bad, dtype=np.float64),
                    lambda: qs._finalize_rescaled_weights(bad)):  # fmt: skip
        with pytest.raises((TypeError, ValueError)) as caught:
            convert()
        outcomes.append((caught.type, str(caught.value)))
    assert outcomes[0] == outcomes[1]


MESSAGE = "failed to cache finalized weights on "


def install(backtester, weights="new"):
    qs._install_finalized_weights(backtester, "graph", {"m": 1}, "top", weights)


def test_weights_reach_every_holder(logged):
    results = [SimpleNamespace(weights=None) for _ in range(3)]
    asked = []

    def cache_key(*args, **kwargs):
        asked.append((args, kwargs))
        return "key"

    backtester = SimpleNamespace(
        last_eval_result=results[0],
        _last_eval_result=results[1],
        _cache={"key": results[2], "other": None},
        _cache_key=cache_key,
    )
    install(backtester)
    assert backtester._last_weights == "new"
    assert [result.weights for result in results] == ["new"] * 3
    assert asked == [(("graph",), {"metaparameters": {"m": 1}, "named_universe": "top"})]
    backtester._cache["key"] = entry = {"weights": "old"}
    install(backtester)
    assert entry == {"weights": "new"}
    [(level, text, [fault])] = logged()
    assert (level, text) == ("DEBUG", MESSAGE + "cache entry attribute: %s")
    assert isinstance(fault, AttributeError)


def test_each_holder_fails_on_its_own(logged):
    class Fixed:
        __slots__ = ()

    class Refusing(dict):
        __slots__ = ()

        def __setitem__(self, key, value):
            raise OSError("sealed")

    install(Fixed())
    assert [entry[:2] for entry in logged()] == [("DEBUG", MESSAGE + "backtester: %s")]

    class Backtester:
        __slots__ = ()
        last_eval_result = Fixed()
        _last_eval_result = property(lambda self: 1 / 0)
        _cache = {1: Refusing()}

        @staticmethod
        def _cache_key(graph, **kwargs):
            return 1

    install(Backtester())
    got = [(text, args[:-1], type(args[-1])) for _, text, args in logged()[1:]]
    assert got == [
        (MESSAGE + "backtester: %s", (), AttributeError),
        (MESSAGE + "%s: %s", ("last_eval_result",), AttributeError),
        (MESSAGE + "%s: %s", ("_last_eval_result",), ZeroDivisionError),
        (MESSAGE + "cache entry attribute: %s", (), AttributeError),
        (MESSAGE + "cache entry mapping: %s", (), OSError),
    ]


@pytest.mark.parametrize(
    "attributes",
    [
        {"_cache": {}},
        {"_cache": {}, "_cache_key": "no callable"},
        {"_cache": [1], "_cache_key": lambda graph, **kwargs: 0},
        {"_cache": {1: None}, "_cache_key": lambda graph, **kwargs: 1},
        {"_cache": {}, "_cache_key": lambda graph: 1},
        {"_cache": {}, "_cache_key": lambda graph, **kwargs: 1 / 0},
    ],
)
def test_unusable_caches_are_passed_over_silently(logged, attributes):
    backtester = SimpleNamespace(**attributes)
    install(backtester)
    assert backtester._last_weights == "new"
    assert logged() == []


@pytest.mark.parametrize("read", [qs._stage_value, qs._stage_attr])
def test_fields_of_a_stage(read):
    class Stage(dict):
        name = "attribute"

    assert read(Stage(name="key"), "name") == "key"
    assert read(Stage(), "name", 5) == 5
    for stage in (Stage(name=None), SimpleNamespace(name=None)):
        assert read(stage, "name", 5) is None
    for missing in (SimpleNamespace(), None, 3):
        assert (read(missing, "name"), read(missing, "name", 5)) == (None, 5)

    class Hostile:
        name = property(lambda self: 1 / 0)

    with pytest.raises(ZeroDivisionError):
        read(Hostile(), "name", 5)


def test_resolved_option():
    stage = {"name": "s", "default": "d"}
    assert qs._resolved_stage_option(stage, {"s": None}) is None
    for nothing in ({}, None, ["s"], "s"):
        assert qs._resolved_stage_option(stage, nothing) == "d"
    assert qs._resolved_stage_option({"default": "d"}, {None: "x"}) == "x"


@pytest.mark.parametrize(
    ("option", "config", "expected"),
    [
        *((name, None, True) for name in RESCALING),
        *(("x", {"rotation": name}, True) for name in RESCALING),
        *(("x", {"rotation": "", "transform": name}, True) for name in RESCALING),
        ("x", {"rotation": "y", "transform": "rescale"}, False),
        ("x", None, False), (None, None, False), ("Rescale", [], False), ("rescale2", {}, False),
        ("x", {"composite": ["a", "rescale"]}, True),
        ("x", {"composite": ("a", {"name": "l1_resize"})}, True),
        ("x", {"composite": [{"name": 0, "rotation": "latitudinal_fill_c3d683"}]}, True),
        ("x", {"composite": [{"name": "", "rotation": None, "transform": "rescale"}]}, True),
        ("x", {"composite": [{"name": "a", "rotation": "rescale"}]}, False),
        ("x", {"composite": {"rescale"}}, False), ("x", {"composite": "rescale"}, False),
        ("x", {"composite": [5, None, "a", ["rescale"], {}]}, False),
    ],
)  # fmt: skip
def test_option_uses_rescale(option, config, expected):
    assert qs._option_uses_rescale(option, config) is expected
    stages = [{"name": "s", "default": option, "option_configs": {option: config}}]
    assert qs._pipeline_applies_rescale(stages, None) is expected
    assert qs._pipeline_applies_rescale((SimpleNamespace(**stages[0]),), {}) is expected


def test_pipeline_of_stages():
    for nothing in (None, [], (), {}):
        assert qs._pipeline_applies_rescale(nothing, {}) is False
    stages = iter([{"name": "a", "default": "rescale"}, pytest.fail])
    assert qs._pipeline_applies_rescale(stages, {"a": "rescale"})
    assert next(stages) is pytest.fail
    off = [{"name": "a", "default": "rescale"}, {"name": "b", "option_configs": [("x", {})]}]
    assert qs._pipeline_applies_rescale(off, {"a": "none"}) is False
    with pytest.raises(TypeError):
        qs._pipeline_applies_rescale(5, {})


def test_empty_stage_data():
    assert isinstance(qs._empty_runtime_stage_data(), StageData)
    qs._import_typed_shapes = lambda: ("node", list)
    assert qs._empty_runtime_stage_data() == []
    qs._import_typed_shapes = lambda: (1, 2, 3)
    with pytest.raises(ValueError, match="unpack"):
        qs._empty_runtime_stage_data()

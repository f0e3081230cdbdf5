"""The selected pool, the named universe, and what strategies refer to."""

from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import raises_exactly
from quillstone import agent_onboarding

NEEDED = (
    "named_universe is required; call quillstone.configure(named_universe=...) or select a pool "
    "with allowed_named_universes."
)


def unsafe(value):
    return f"named_universe must be a single safe path segment, got {value!r}"


@pytest.fixture(autouse=True)
def no_configured_universe(monkeypatch):
    monkeypatch.setattr(agent_onboarding, "_config", {})


def test_field_name_and_id_check():
    assert qs._selected_pool_field_name("STRATEGY") == "strategy_pool_id"
    for other in ("SIGNAL", "strategy", None, 3):
        assert qs._selected_pool_field_name(other) == "signal_pool_id"
    for good in ("p", " ", "/"):
        assert qs._validate_selected_pool_id(good, "f") is good
    for bad in ("", None, 5, b"p", ["p"]):
        with raises_exactly(ValueError, "5 must be a non-empty string"):
            qs._validate_selected_pool_id(bad, 5)


@pytest.mark.parametrize(
    ("value", "expected"),
    [(None, None), ("", None), (" \t\n", None), ("top", "top"), (" top 5 ", "top 5"), (5, "5"),
     ("...", "..."), (0, "0"), (False, "False"), ("\x85top", "top")],
)  # fmt: skip
def test_safe_universe(value, expected):
    assert qs._safe_named_universe(value) == expected


@pytest.mark.parametrize("value", [".", "..", " .. ", "a/b", "/", "a\\b", "a\0b", ["a/b"]])
def test_unsafe_universe(value):
    with raises_exactly(ValueError, unsafe(value)):
        qs._safe_named_universe(value)


@pytest.mark.parametrize(
    ("pool", "expected"),
    [
        (None, []), ([], []), ("x", []), ({}, []),
        ({"allowed_named_universes": [" a ", None, "", 5], "named_universe": "n"}, ["a", "5"]),
        ({"allowed_named_universes": [], "named_universe": "n"}, []),
        ({"allowed_named_universes": ("a",), "named_universe": "n"}, ["n"]),
        ({"allowed_named_universes": None, "named_universe": " "}, []),
    ],
)  # fmt: skip
def test_allowed_universes(pool, expected):
    assert qs._pool_allowed_named_universes(pool) == expected


def test_unsafe_allowed_universe_raises():
    for pool in ({"allowed_named_universes": ["a", "b/c"]}, {"named_universe": "b/c"}):
        with raises_exactly(ValueError, unsafe("b/c")):
            qs._pool_allowed_named_universes(pool)


def test_configured_universe(monkeypatch):
    for config, expected in (
        ({"named_universe": " kit "}, "kit"), ({}, None), (None, None),
        ({"named_universe": "a/b"}, None), (SimpleNamespace(get=lambda key: 1 / 0), None),
    ):  # fmt: skip
        monkeypatch.setattr(agent_onboarding, "_config", config)
        assert qs._configured_named_universe() == expected
    monkeypatch.delattr(agent_onboarding, "_config")
    assert qs._configured_named_universe() is None

    class Stopping:
        def get(self, key):
            raise KeyboardInterrupt

    monkeypatch.setattr(agent_onboarding, "_config", Stopping(), raising=False)
    with pytest.raises(KeyboardInterrupt):
        qs._configured_named_universe()


def test_order_of_precedence(monkeypatch):
    qs._era_config = {"signal_pools": [{"pool_id": "p", "named_universe": "pool"}]}
    assert qs._resolve_simulation_named_universe(None, "SIGNAL", "p") == "pool"
    monkeypatch.setattr(agent_onboarding, "_config", {"named_universe": "kit"})
    assert qs._resolve_simulation_named_universe(" ", "SIGNAL", "p") == "kit"
    assert qs._resolve_simulation_named_universe("mine", "SIGNAL", "p") == "mine"
    with raises_exactly(ValueError, unsafe("a/b")):
        qs._resolve_simulation_named_universe("a/b", "SIGNAL", "p")
    monkeypatch.setattr(agent_onboarding, "_config", {})
    for config in (None, {}, {"signal_pools": None}, {"signal_pools": [None, "x", {}]}):
        qs._era_config = config
        with raises_exactly(ValueError, NEEDED):
            qs._resolve_simulation_named_universe(None, "SIGNAL", None)


def signal_pool(name, *allowed, **more):
    return {"pool_id": name, "allowed_named_universes": list(allowed), **more}


def test_universe_of_the_selected_pool_or_its_linked_one(logged):
    linked = {"pool_id": "s", "signal_pool_name": "p2"}
    era = {
        "signal_pools": [signal_pool("p1", "u1"), signal_pool("p2", "u2"), signal_pool("p3")],
        "strategy_pools": [linked, {"pool_id": "own", "named_universe": "u9"}],
    }
    assert qs._first_pool_named_universe(era, "SIGNAL", "p2") == "u2"
    assert qs._first_pool_named_universe(era, "STRATEGY", "s") == "u2"
    assert qs._first_pool_named_universe(era, "STRATEGY", "own") == "u9"
    assert qs._first_pool_named_universe(era, "SIGNAL", "p3") == "u1"
    assert qs._first_pool_named_universe(era, "SIGNAL", None) == "u1"
    assert logged() == []
    linked["signal_pool_name"] = ""
    assert qs._first_pool_named_universe(era, "STRATEGY", "s") == "u1"
    [(level, text, (kind, pool_id, error))] = logged()
    expected = "failed to resolve selected pool named universe for %s/%s: %s"
    assert (level, text, kind, pool_id) == ("DEBUG", expected, "STRATEGY", "s")
    assert "must declare a linked signal pool" in str(error)
    qs._selected_pool_config = lambda *args: (_ for _ in ()).throw(SystemExit())
    with pytest.raises(SystemExit):
        qs._first_pool_named_universe(era, "SIGNAL", "p1")


def test_universe_of_the_first_pool_that_names_one():
    single = signal_pool("b", named_universe="n")
    era = {"signal_pools": [5, {}, signal_pool("a", " ", None), single, signal_pool("c", "u")]}
    assert qs._first_pool_named_universe(era, "SIGNAL", None) == "n"
    assert qs._first_pool_named_universe({}, "SIGNAL", None) is None
    with raises_exactly(ValueError, unsafe("a/b")):
        qs._first_pool_named_universe({"signal_pools": [signal_pool("a", "a/b")]}, "SIGNAL", None)


def test_pool_is_found_under_each_identifier():
    first = {"pool_id": "p1", "name": "alpha", "signal_pool_name": "x", "strategy_pool_name": "q"}
    second = {"pool_id": "alpha", "name": "", "signal_pool_id": 5, "strategy_pool_id": "r"}
    era = {"signal_pools": [first, second], "strategy_pools": (first, second)}
    for kind, identifiers in (("SIGNAL", ["p1", "alpha", "x"]), ("STRATEGY", ["p1", "alpha", "q"])):
        for identifier in identifiers:
            assert qs._selected_pool_config(era, kind, identifier) is first
    assert qs._selected_pool_config(era, "SIGNAL", 5) is second
    assert qs._selected_pool_config(era, "STRATEGY", "r") is second
    for kind, field, key, accepted in (
        ("SIGNAL", "signal_pool_id", "signal_pools", "p1, alpha, x, 5"),
        ("STRATEGY", "strategy_pool_id", "strategy_pools", "p1, alpha, q, r"),
    ):
        with raises_exactly(
            ValueError,
            f"Unknown {field} 'nope'. Available {key} ids: ['p1', 'alpha']. "
            f"Valid {field} values include: {accepted}",
        ):
            qs._selected_pool_config(era, kind, "nope")
        text = f"era_config must contain a '{key}' key with at least one pool definition."
        for empty in ({}, {key: []}, {key: {}}):
            with raises_exactly(ValueError, text):
                qs._selected_pool_config(empty, kind, "p1")


@pytest.mark.parametrize(("kind", "prefix"), [("SIGNAL", "signal"), ("STRATEGY", "strategy")])
def test_runtime_name(kind, prefix):
    keys = [f"{prefix}_pool_name", f"{prefix}_pool_id", "name", "pool_id"]
    pool = {key: f"by {key}" for key in keys}
    for key in keys:
        assert qs._selected_pool_runtime_name(pool, kind, "x") == f"by {key}"
        pool[key] = ""
    text = f"selected {prefix}_pool_id 'x' declares none of: {', '.join(keys)}"
    with raises_exactly(ValueError, text):
        qs._selected_pool_runtime_name(pool, kind, "x")


def test_linked_signal_pool():
    assert qs._strategy_signal_pool_id({"signal_pool_name": 5}, "s") == 5
    for pool in ({}, {"signal_pool_name": ""}, {"signal_pool_name": None}):
        text = "Strategy pool '7' must declare a linked signal pool via signal_pool_name."
        for call in (
            lambda pool=pool: qs._strategy_signal_pool_id(pool, 7),
            lambda pool=pool: qs._validate_strategy_useful_signal_pools(7, pool, [], {}),
        ):
            with raises_exactly(ValueError, text):
                call()


def test_metadata_of_a_reference():
    by_key, by_text, by_id = {"n": 1}, {"n": 2}, {"submission_id": "s9", "id": "s8"}
    metadata = {5: by_key, "5": {}, "7": by_text, "z": {"graph_hash": 9}, "other": by_id}
    assert qs._metadata_for_signal_ref(5, metadata) is by_key
    assert qs._metadata_for_signal_ref(7, metadata) is by_text
    for reference in ("s9", "s8"):
        assert qs._metadata_for_signal_ref(reference, metadata) is by_id
    assert qs._metadata_for_signal_ref("nobody", metadata) is None
    assert qs._metadata_for_signal_ref(9, metadata) is None
    with raises_exactly(TypeError, "'NoneType' object is not subscriptable"):
        qs._metadata_for_signal_ref("x", None)


def test_label_and_pool_of_metadata():
    metadata = {"signal_id": "d", "id": "c", "submission_id": "b", "graph_hash": "a"}
    reference = object()
    for expected in ("a", "b", "c", "d"):
        assert qs._signal_ref_label(reference, metadata) == expected
        del metadata[next(key for key, value in metadata.items() if value == expected)]
    assert qs._signal_ref_label(reference, {"id": ""}) is reference
    assert qs._metadata_signal_pool_id({"signal_pool_id": "p"}) == "p"
    for nothing in (None, {}, {"signal_pool_id": ""}):
        assert qs._metadata_signal_pool_id(nothing) is None


def test_useful_signals_must_share_the_linked_pool():
    pool = {"signal_pool_name": "p1"}
    metadata = {
        "ok": {"signal_pool_id": "p1"}, "free": {}, "bad": {"signal_pool_id": 9, "graph_hash": "h"},
        "worse": {"signal_pool_id": "p3"},
    }  # fmt: skip
    check = qs._validate_strategy_useful_signal_pools
    assert check("s", pool, ["ok", "free", "unknown"], metadata) is None
    text = (
        "Strategy pool 's' is linked to signal pool 'p1', but useful signal '{}' belongs to "
        "signal pool '{}'. Strategies may only reference useful signals from the same pool."
    )
    with raises_exactly(ValueError, text.format("h", 9)):
        check("s", pool, ["ok", "bad", "worse"], metadata)
    with raises_exactly(ValueError, text.format("worse", "p3")):
        check("s", pool, ["worse", "bad"], metadata)


def test_referenced_signal_ids():
    metadata = {5: {}, "a": {"id": "x"}, "b": {"signal_id": 8}, "": {}}
    pool = {"found_signal_ids": [1, "two"]}
    assert qs._strategy_referenced_signal_ids([5, "a", "b", ""], metadata, pool) == ["5", "x", "8"]
    for nothing in ([], None, [""]):
        assert qs._strategy_referenced_signal_ids(nothing, metadata, pool) == ["1", "two"]
        assert qs._strategy_referenced_signal_ids(nothing, metadata, {}) == []

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
FOREIGN = (
    "Strategy pool 's' is linked to signal pool 'p1', but useful signal '{}' belongs to signal "
    "pool '{}'. Strategies may only reference useful signals from the same pool."
)


def unsafe(value):
    return f"named_universe must be a single safe path segment, got {value!r}"


def signal_pool(name, *allowed, **more):
    return {"pool_id": name, "allowed_named_universes": list(allowed), **more}


@pytest.fixture(autouse=True)
def no_configured_universe(monkeypatch):
    monkeypatch.setattr(agent_onboarding, "_config", {})


@pytest.mark.parametrize("bad", ["", None, 5, b"p", ["p"]])
def test_pool_id_must_be_a_non_empty_string(bad):
    assert qs._validate_selected_pool_id(" ", "f") == " "
    for kind, field in (("STRATEGY", "strategy_pool_id"), ("strategy", "signal_pool_id")):
        with raises_exactly(ValueError, f"{field} must be a non-empty string"):
            qs._validate_selected_pool_id(bad, qs._selected_pool_field_name(kind))


@pytest.mark.parametrize(
    ("value", "expected"),
    [(None, None), ("", None), (" \t\n", None), (" top 5 ", "top 5"), (5, "5"), ("...", "..."),
     (0, "0"), (False, "False"), ("\x85top", "top"),
     *((bad, ValueError) for bad in (".", "..", " .. ", "a/b", "a\\b", "a\0b", ["a/b"]))],
)  # fmt: skip
def test_safe_universe(value, expected):
    if expected is not ValueError:
        assert qs._safe_named_universe(value) == expected
        return
    for call in (
        lambda: qs._safe_named_universe(value),
        lambda: qs._pool_allowed_named_universes({"allowed_named_universes": ["a", value]}),
        lambda: qs._pool_allowed_named_universes({"named_universe": value}),
        lambda: qs._resolve_simulation_named_universe(value, "SIGNAL", "p"),
        lambda: qs._first_pool_named_universe(
            {"signal_pools": [signal_pool("a", value)]}, "SIGNAL", None
        ),
    ):
        with raises_exactly(ValueError, unsafe(value)):
            call()


@pytest.mark.parametrize(
    ("pool", "expected"),
    [
        (None, []), ([], []), ({}, []),
        ({"allowed_named_universes": [" a ", None, "", 5], "named_universe": "n"}, ["a", "5"]),
        ({"allowed_named_universes": [], "named_universe": "n"}, []),
        ({"allowed_named_universes": ("a",), "named_universe": "n"}, ["n"]),
        ({"allowed_named_universes": None, "named_universe": " "}, []),
    ],
)  # fmt: skip
def test_allowed_universes(pool, expected):
    assert qs._pool_allowed_named_universes(pool) == expected


def test_configured_universe_never_fails(monkeypatch):
    failing = SimpleNamespace(get=lambda key: 1 / 0)
    for config in ({"named_universe": " kit "}, {}, None, {"named_universe": "a/b"}, failing):
        monkeypatch.setattr(agent_onboarding, "_config", config)
        expected = "kit" if config == {"named_universe": " kit "} else None
        assert qs._configured_named_universe() == expected
    monkeypatch.delattr(agent_onboarding, "_config")
    assert qs._configured_named_universe() is None
    stopping = SimpleNamespace(get=lambda key: exec("raise KeyboardInterrupt"))
    monkeypatch.setattr(agent_onboarding, "_config", stopping, raising=False)
    with pytest.raises(KeyboardInterrupt):
        qs._configured_named_universe()


def test_order_of_precedence(monkeypatch):
    qs._era_config = {"signal_pools": [{"pool_id": "p", "named_universe": "pool"}]}
    assert qs._resolve_simulation_named_universe(None, "SIGNAL", "p") == "pool"
    monkeypatch.setattr(agent_onboarding, "_config", {"named_universe": "kit"})
    assert qs._resolve_simulation_named_universe(" ", "SIGNAL", "p") == "kit"
    assert qs._resolve_simulation_named_universe("mine", "SIGNAL", "p") == "mine"
    monkeypatch.setattr(agent_onboarding, "_config", {})
    for config in (None, {}, {"signal_pools": None}, {"signal_pools": [None, "x", {}]}):
        qs._era_config = config
        with raises_exactly(ValueError, NEEDED):
            qs._resolve_simulation_named_universe(None, "SIGNAL", None)


def test_universe_of_the_selected_pool_or_its_linked_one(logged):
    linked = {"pool_id": "s", "signal_pool_name": "p2"}
    single = signal_pool("b", named_universe="n")
    era = {
        "signal_pools": [5, {}, signal_pool("a", " ", None), single, signal_pool("p2", "u2")],
        "strategy_pools": [linked, {"pool_id": "own", "named_universe": "u9"}],
    }
    assert qs._first_pool_named_universe(era, "SIGNAL", None) == "n"
    era["signal_pools"][:2] = []
    for kind, pool_id, expected in (("SIGNAL", "p2", "u2"), ("STRATEGY", "s", "u2"),
                                    ("STRATEGY", "own", "u9"), ("SIGNAL", "a", "n")):  # fmt: skip
        assert qs._first_pool_named_universe(era, kind, pool_id) == expected
    assert logged() == []
    linked["signal_pool_name"] = ""
    assert qs._first_pool_named_universe(era, "STRATEGY", "s") == "n"
    [(level, text, (kind, pool_id, error))] = logged()
    expected = "failed to resolve selected pool named universe for %s/%s: %s"
    assert (level, text, kind, pool_id) == ("DEBUG", expected, "STRATEGY", "s")
    assert "must declare a linked signal pool" in str(error)
    qs._selected_pool_config = lambda *args: exec("raise SystemExit")
    with pytest.raises(SystemExit):
        qs._first_pool_named_universe(era, "SIGNAL", "p1")


def test_pool_is_found_under_each_identifier():
    first = {"pool_id": "p1", "name": "alpha", "signal_pool_name": "x", "strategy_pool_name": "q"}
    second = {"pool_id": "alpha", "name": "", "signal_pool_id": 5, "strategy_pool_id": "r"}
    accepted = {"signal": ["p1", "alpha", "x", 5], "strategy": ["p1", "alpha", "q", "r"]}
    for key, identifiers in accepted.items():
        kind = key.upper()
        era = {f"{key}_pools": (first, second)}
        pools = [qs._selected_pool_config(era, kind, identifier) for identifier in identifiers]
        assert [pool is first for pool in pools] == [True, True, True, False]
        with raises_exactly(
            ValueError,
            f"Unknown {key}_pool_id 'nope'. Available {key}_pools ids: ['p1', 'alpha']. "
            f"Valid {key}_pool_id values include: {', '.join(map(str, identifiers))}",
        ):
            qs._selected_pool_config(era, kind, "nope")
        text = f"era_config must contain a '{key}_pools' key with at least one pool definition."
        with raises_exactly(ValueError, text):
            qs._selected_pool_config({}, kind, "p1")
        keys = [f"{key}_pool_name", f"{key}_pool_id", "name", "pool_id"]
        pool = {name: f"by {name}" for name in keys}
        for name in keys:
            assert qs._selected_pool_runtime_name(pool, kind, "x") == f"by {name}"
            pool[name] = ""
        text = f"selected {key}_pool_id 'x' declares none of: {', '.join(keys)}"
        with raises_exactly(ValueError, text):
            qs._selected_pool_runtime_name(pool, kind, "x")


def test_metadata_of_a_reference():
    by_key, by_text, by_id = {"n": 1}, {"n": 2}, {"submission_id": "s9", "id": "s8"}
    metadata = {5: by_key, "5": {}, "7": by_text, "z": {"graph_hash": 9}, "other": by_id}
    for reference, expected in ((5, by_key), (7, by_text), ("s9", by_id), ("s8", by_id),
                                ("nobody", None), (9, None)):  # fmt: skip
        assert qs._metadata_for_signal_ref(reference, metadata) is expected
    with raises_exactly(TypeError, "'NoneType' object is not subscriptable"):
        qs._metadata_for_signal_ref("x", None)


def test_labels_pools_and_ids_of_references():
    keys = ("graph_hash", "submission_id", "id", "signal_id")
    reference = object()
    for position, expected in enumerate(keys):
        labels = dict.fromkeys(keys[:position], "") | {key: key for key in keys[position:]}
        assert qs._signal_ref_label(reference, labels) == expected
    assert qs._signal_ref_label(reference, {"id": ""}) is reference
    assert qs._metadata_signal_pool_id({"signal_pool_id": "p"}) == "p"
    for nothing in (None, {}, {"signal_pool_id": ""}):
        assert qs._metadata_signal_pool_id(nothing) is None
    metadata = {5: {}, "a": {"id": "x"}, "b": {"signal_id": 8}, "": {}}
    pool = {"found_signal_ids": [1, "two"]}
    assert qs._strategy_referenced_signal_ids([5, "a", "b", ""], metadata, pool) == ["5", "x", "8"]
    for nothing in ([], None, [""]):
        assert qs._strategy_referenced_signal_ids(nothing, metadata, pool) == ["1", "two"]
        assert qs._strategy_referenced_signal_ids(nothing, metadata, {}) == []


def test_useful_signals_must_share_the_linked_pool():
    pool = {"signal_pool_name": "p1"}
    metadata = {
        "ok": {"signal_pool_id": "p1"}, "free": {}, "bad": {"signal_pool_id": 9, "graph_hash": "h"},
        "worse": {"signal_pool_id": "p3"},
    }  # fmt: skip
    check = qs._validate_strategy_useful_signal_pools
    assert check("s", pool, ["ok", "free", "unknown"], metadata) is None
    for signals, named in ((["ok", "bad", "worse"], ("h", 9)), (["worse", "bad"], ("worse", "p3"))):
        with raises_exactly(ValueError, FOREIGN.format(*named)):
            check("s", pool, signals, metadata)
    text = "Strategy pool '7' must declare a linked signal pool via signal_pool_name."
    for unlinked in ({}, {"signal_pool_name": ""}, {"signal_pool_name": None}):
        with raises_exactly(ValueError, text):
            check(7, unlinked, [], {})

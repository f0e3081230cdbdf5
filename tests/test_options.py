"""The catalog of universes and engines that an era offers."""

from contextlib import suppress
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import raises_exactly
from quillstone import _runtime
from quillstone.errors import SdkRuntimeNotReadyError


def era(rules, allowed=None, pools=()):
    return SimpleNamespace(
        universe_rules=rules,
        allowed_named_universes=allowed,
        signal_pools=[SimpleNamespace(allowed_named_universes=names) for names in pools],
    )


def names(config):
    return [option["id"] for option in qs._universe_options(config)]


def test_universes_are_listed_in_text_order():
    rules = {"b": {"rule_id": 2}, "a": {"rule_id": " 1 "}, "10": {"rule_id": 3}, 9: {"rule_id": 4}}
    options = qs._universe_options(era(rules))
    assert options == [
        {"id": key, "named_universe": key, "rule_id": rule_id}
        for key, rule_id in (("10", 3), ("9", 4), ("a", 1), ("b", 2))
    ]
    assert list(options[0]) == ["id", "named_universe", "rule_id"]


@pytest.mark.parametrize(
    ("market", "pool", "keys"),
    [(None, None, []), (5, None, ["market_id"]), (True, "6", ["pool_id"]),
     ("5", 6, ["market_id", "pool_id"]), (0, -1, [])],
)  # fmt: skip
def test_optional_ids(market, pool, keys):
    rule = {"pool_id": pool, "market_id": market, "rule_id": 1}
    [option] = qs._universe_options(era({"u": rule}))
    assert list(option)[3:] == keys
    assert [option[key] for key in keys] == [{"market_id": 5, "pool_id": 6}[key] for key in keys]


def test_which_universes_are_admitted():
    rules = {name: {"rule_id": 1} for name in "abc"} | {5: {"rule_id": 1}}
    assert names(era(rules)) == ["5", "a", "b", "c"]
    assert names(era(rules, ["b", "x"], [["a"]])) == ["b"]
    assert names(era(rules, None, [["a", "", None], None, [5]])) == ["5", "a"]
    assert names(era(rules, [5])) == []
    assert names(SimpleNamespace(universe_rules=rules)) == ["5", "a", "b", "c"]


def test_unusable_rules_are_left_out():
    for rules in (None, {}, [], [1], "x"):
        assert qs._universe_options(era(rules)) == []
    rules = {"a": 5, "b": {}, "c": {"rule_id": True}, "d": {"rule_id": 1}}
    assert names(era(rules)) == ["d"]


class Known(dict):
    pass


def test_engine_catalog_is_copied_plainly():
    leaf = object()
    payload = {1: (leaf, [2, (3,)]), None: Known(x={True: "y"}), "s": "text", (4,): {5}}
    source = {"engine_definitions": payload}
    got = qs._engine_definitions_from_agent_payload(source, None)
    assert got == {"1": [leaf, [2, [3]]], "None": {"x": {"True": "y"}}, "s": "text", "(4,)": {5}}
    assert list(got) == ["1", "None", "s", "(4,)"]
    assert got["1"][0] is leaf
    assert got["(4,)"] is payload[(4,)]
    assert type(got["None"]) is dict
    typed = SimpleNamespace(engine_definitions=payload)
    assert qs._engine_definitions_from_agent_payload(typed, {}) == got
    assert qs._plain_engine_definition_payload(leaf) is leaf


@pytest.mark.parametrize(
    ("source", "text"),
    [
        ({}, "missing from synced era config"),
        ({"engine_definitions": None}, "missing from synced era config"),
        (SimpleNamespace(), "missing from synced era config"),
        ({"engine_definitions": []}, "must be the synced canonical agent payload"),
        (SimpleNamespace(engine_definitions="x"), "must be the synced canonical agent payload"),
    ],
)
def test_missing_engine_catalog(source, text):
    typed = SimpleNamespace(engine_definitions={"typed": 1})
    with raises_exactly(SdkRuntimeNotReadyError, f"engine_definitions {text}"):
        qs._engine_definitions_from_agent_payload(source, typed)


def test_shared_deep_and_cyclic_payloads():
    shared = []
    for _ in range(60):
        shared = [shared, shared]
    copy = qs._plain_engine_definition_payload(shared)
    for _ in range(60):
        assert len(copy) == 2
        copy = copy[1]
    assert copy == []
    ring = {}
    ring["again"] = [ring]
    with suppress(RecursionError):
        assert list(qs._plain_engine_definition_payload(ring)) == ["again"]
    deep = bottom = []
    for _ in range(100_000):
        bottom.append([])
        bottom = bottom[0]
    with suppress(RecursionError):
        qs._plain_engine_definition_payload(deep)


def test_options_of_an_era(monkeypatch):
    seen = []
    typed = era({"u": {"rule_id": 1}})
    source = {"engine_definitions": {"e": ()}}
    monkeypatch.setattr(_runtime, "sdk_era_config_from_dict", lambda c: seen.append(c) or typed)
    options = qs.effective_simulation_options(source)
    assert list(options.items()) == [
        ("universe_options", [{"id": "u", "named_universe": "u", "rule_id": 1}]),
        ("engine_definitions", {"e": []}),
    ]
    assert seen[0] is source
    typed.universe_rules = {"u": {"rule_id": 1}, "v": Known()}
    qs._universe_options = lambda config: 1 / 0
    with pytest.raises(ZeroDivisionError):
        qs.effective_simulation_options({})
    monkeypatch.setattr(_runtime, "sdk_era_config_from_dict", lambda config: [][0])
    with pytest.raises(IndexError):
        qs.effective_simulation_options(source)

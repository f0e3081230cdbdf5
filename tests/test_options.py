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


def test_universes_are_listed_in_text_order():
    rules = {
        "b": {"rule_id": 2}, "a": {"pool_id": "6", "market_id": 5, "rule_id": " 1 "},
        "10": {"rule_id": 3, "market_id": True, "pool_id": 0}, 9: {"pool_id": 7, "rule_id": 4},
        "no": {"rule_id": True}, "never": 5, "nor": {},
    }  # fmt: skip
    options = qs._universe_options(era(rules))
    assert [list(option.values()) for option in options] == [
        ["10", "10", 3], ["9", "9", 4, 7], ["a", "a", 1, 5, 6], ["b", "b", 2],
    ]  # fmt: skip
    keys = ["id", "named_universe", "rule_id", "market_id", "pool_id"]
    assert [list(option) for option in options] == [
        keys[:3], [*keys[:3], "pool_id"], keys, keys[:3],
    ]  # fmt: skip
    for unusable in (None, {}, [], [1], "x"):
        assert qs._universe_options(era(unusable)) == []


@pytest.mark.parametrize(
    ("allowed", "pools", "expected"),
    [
        (None, [], ["5", "a", "b", "c"]),
        (["b", "x"], [["a"]], ["b"]),
        (None, [["a", "", None], None, [5]], ["5", "a"]),
        ([5], [], []),
    ],
)
def test_which_universes_are_admitted(allowed, pools, expected):
    rules = {name: {"rule_id": 1} for name in ("a", "b", "c", 5)}
    options = qs._universe_options(era(rules, allowed, pools))
    assert [option["id"] for option in options] == expected


class Known(dict):
    pass


def test_engine_catalog_is_copied_plainly():
    leaf = object()
    payload = {1: (leaf, [2, (3,)]), None: Known(x={True: "y"}), "s": "text", (4,): {5}}
    got = qs._engine_definitions_from_agent_payload({"engine_definitions": payload}, None)
    assert got == {"1": [leaf, [2, [3]]], "None": {"x": {"True": "y"}}, "s": "text", "(4,)": {5}}
    assert list(got) == ["1", "None", "s", "(4,)"]
    assert got["1"][0] is leaf
    assert got["(4,)"] is payload[(4,)]
    assert type(got["None"]) is dict
    typed = SimpleNamespace(engine_definitions=payload)
    assert qs._engine_definitions_from_agent_payload(typed, {}) == got


def test_every_part_of_a_catalog_is_copied_by_the_function_of_now(monkeypatch):
    inner = {"b": 2.5}
    payload = {"a": [1, inner, ("x",)], "c": inner}
    copy = qs._plain_engine_definition_payload
    assert copy(payload) == {"a": [1, inner, ["x"]], "c": inner}
    parts = []
    monkeypatch.setattr(
        qs, "_plain_engine_definition_payload", lambda part: parts.append(part) or copy(part)
    )
    got = copy(payload)
    assert parts == [payload["a"], 1, inner, 2.5, ("x",), "x", inner, 2.5]
    got["a"][1]["b"] = got["c"]["b"] = 0
    assert payload == {"a": [1, {"b": 2.5}, ("x",)], "c": {"b": 2.5}}


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
    deep = bottom = []
    for _ in range(100_000):
        bottom.append([])
        bottom = bottom[0]
    for payload in (ring, deep):
        with suppress(RecursionError):
            assert len(qs._plain_engine_definition_payload(payload)) == 1


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
    qs._universe_options = lambda config: 1 / 0
    with pytest.raises(ZeroDivisionError):
        qs.effective_simulation_options({})

"""Reading the era configuration: copies, era ids, required fields, rule ids, thresholds."""

from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import raises_exactly
from quillstone.errors import SdkRuntimeNotReadyError
from quillstone.sync import EraError

NOT_READY = str(SdkRuntimeNotReadyError())
DATA_SHAPE = "missing required runtime data-shape field: "


def test_config_is_copied_and_compared_without_coercion():
    nested = []
    qs._era_config = {"era_id": 3, "pools": nested}
    config = qs._resolve_runtime_era_config(3.0)
    assert config == qs._era_config
    assert config["pools"] is nested
    config["added"] = 1
    assert "added" not in qs._era_config
    for wrong in ("3", None, 4):
        with raises_exactly(EraError, f"Synced era_id={wrong} does not match era_config era_id=3"):
            qs._resolve_runtime_era_config(wrong)
    qs._era_config = {"era_id": None}
    assert qs._resolve_runtime_era_config(None) == {"era_id": None}


class Whole:
    def __init__(self, answer):
        self.answer = answer

    def __int__(self):
        if isinstance(self.answer, BaseException):
            raise self.answer
        return self.answer


@pytest.mark.parametrize(
    ("value", "expected"),
    [(None, None), (True, None), (False, None), (0, 0), (-1, None), ("12", 12), (" 5 ", 5),
     ("x", None), ("3.0", None), (4.9, 4), (-0.5, 0), ([], None), (b"7", 7), (10**30, 10**30),
     (Whole(6), 6), (Whole(TypeError()), None), (Whole(ValueError()), None)],
)  # fmt: skip
def test_era_id(value, expected):
    got = qs._coerce_era_id(value)
    assert (type(got), got) == (type(expected), expected)
    for manifest in ({"era_id": value}, SimpleNamespace(era_id=value)):
        assert qs._era_id_from_manifest(manifest) == expected
    manager = SimpleNamespace(get_manifest=lambda: {"era_id": value})
    if expected is None:
        with raises_exactly(SdkRuntimeNotReadyError, NOT_READY):
            qs._derive_synced_era_id(manager)
    else:
        assert qs._derive_synced_era_id(manager) == expected


def test_era_id_of_other_manifests_and_other_conversion_errors():
    class Manifest(dict):
        era_id = 9

    assert qs._era_id_from_manifest(Manifest(era_id=4)) == 4
    for nothing in (None, {}, object(), 5):
        assert qs._era_id_from_manifest(nothing) is None
    for value, kind in ((float("inf"), OverflowError), (Whole(KeyError()), KeyError)):
        with pytest.raises(kind):
            qs._coerce_era_id(value)


def test_required_fields():
    for present in (0, "", [], False):
        assert qs._required_runtime_data_shape_value({"f": present}, "f") is present
    with raises_exactly(SdkRuntimeNotReadyError, DATA_SHAPE + "f"):
        qs._required_runtime_data_shape_value({"f": None}, "f")
    for columns in (["a", "b"], ("a",), "ab"):
        assert qs._primary_evaluation_pnl_column({"evaluation_pnl_columns": columns}) == "a"
    for config in ({}, {"evaluation_pnl_columns": []}, {"evaluation_pnl_columns": None}):
        with raises_exactly(SdkRuntimeNotReadyError, DATA_SHAPE + "evaluation_pnl_columns"):
            qs._primary_evaluation_pnl_column(config)


@pytest.mark.parametrize(
    ("value", "expected"),
    [(7, 7), ("7", 7), (" 7 ", 7), ("\u0667", 7), ("007", 7), (True, None), (None, None),
     (0, None), (-3, None), ("-3", None), ("+7", None), ("7.0", None), ("0", None),
     ("\u00b2", None), ("", None), (7.0, None), ([7], None), ("9" * 5000, None), (10**40, 10**40)],
)  # fmt: skip
def test_rule_id(value, expected):
    assert qs._coerce_int_rule_id(value) == expected
    config = {"universe_rules": {"top": {"rule_id": value}}}
    assert qs._resolve_universe_rule_id_for_sdk(config, "top") == expected


def test_rule_id_of_a_universe_fails_closed():
    for rules in (None, [], {}, {"top": 3}, {"top": {}}):
        assert qs._resolve_universe_rule_id_for_sdk({"universe_rules": rules}, "top") is None
    for removed in (None, {}, {"top": 1}):
        config = {"universes": removed, "universe_rules": {"top": {"rule_id": 1}}}
        with raises_exactly(SdkRuntimeNotReadyError, NOT_READY):
            qs._resolve_universe_rule_id_for_sdk(config, "top")


def test_pool_thresholds():
    entry = {"x": 1}
    assert qs._resolve_pool_universe_thresholds({"universes": {1: entry, 2: {}}}, 1) is entry
    for universes, rule_id in (({1: entry}, 3), ({1: entry}, None), ([1], 1), (None, 1), ("x", 1)):
        assert qs._resolve_pool_universe_thresholds({"universes": universes}, rule_id) == {}
    assert qs._resolve_pool_universe_thresholds({}, 1) == {}
    for bad in ("hltop100", "4", True, 0, -1, 1.5, None):
        for rule_id in (5, None):
            with raises_exactly(SdkRuntimeNotReadyError, NOT_READY):
                qs._resolve_pool_universe_thresholds({"universes": {5: entry, bad: 1}}, rule_id)

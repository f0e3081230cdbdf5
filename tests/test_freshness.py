"""Noticing a refreshed vocabulary, and reloading it."""

from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from quillstone import obfuscation

PATH = "/data/top/vocabulary.json"


def test_state_is_copied_and_never_fails():
    pending, loaded = {"a": "1"}, {"b": "2"}
    snapshot = SimpleNamespace(pending_data_artifact_shas=pending, loaded_data_artifact_shas=loaded)
    state = qs._runtime_vocabulary_freshness_state(SimpleNamespace(snapshot=snapshot))
    assert state == (pending, loaded)
    assert type(state) is tuple
    pending["c"] = "3"
    assert state == ({"a": "1"}, loaded)

    class Hostile:
        @property
        def snapshot(self):
            raise ZeroDivisionError

    snapshots = [None, *(SimpleNamespace(pending_data_artifact_shas=bad) for bad in (None, 5))]
    guards = [SimpleNamespace(snapshot=snapshot) for snapshot in snapshots]
    for guard in (None, object(), Hostile(), *guards):
        first, second = qs._runtime_vocabulary_freshness_state(guard)
        assert (first, second) == ({}, {})
        assert first is not second


@pytest.mark.parametrize(
    ("path", "universe", "expected"),
    [
        ("C:\\data\\top\\vocabulary.json", "top", True),
        ("C:\\data\\top\\vocabulary.json", "to", False),
        ("top/vocabulary.json", "top", True),
        ("x/top/deep/vocabulary.json", "top", True),
        ("/vocabulary.json", None, True),
        ("/vocabulary.json", "", True),
        ("/vocabulary.json", "top", False),
        ("vocabulary.json", None, False),
        ("/data/top/vocabulary.json.bak", "top", False),
        ("/data/top/my_vocabulary.json", None, False),
        ("/data/5/vocabulary.json", 5, True),
        (SimpleNamespace(), None, False),
    ],
)
def test_vocabulary_path(path, universe, expected):
    assert qs._is_vocabulary_artifact_path(path, universe) is expected


@pytest.mark.parametrize(
    ("before", "after", "expected"),
    [
        (({PATH: "h1"}, {PATH: "h0"}), ({}, {PATH: "h1"}), True),
        (({PATH: "h1"}, {}), ({}, {PATH: "h1"}), True),
        (({PATH: "h1"}, {PATH: "h1"}), ({}, {PATH: "h1"}), False),
        (({PATH: "h1"}, {PATH: "h0"}), ({PATH: "h1"}, {PATH: "h1"}), False),
        (({PATH: "h1"}, {PATH: "h0"}), ({}, {PATH: "h2"}), False),
        (({PATH: "h1"}, {}), ({}, {}), False),
        (({"/data/low/vocabulary.json": "h"}, {}), ({}, {"/data/low/vocabulary.json": "h"}), False),
        (({"a": "x", PATH: "h1"}, {}), ({}, {"a": "x", PATH: "h1"}), True),
        (({}, {}), ({}, {PATH: "h1"}), False),
    ],
)
def test_refreshed(before, after, expected):
    assert qs._runtime_vocabulary_refreshed(before, after, "top") is expected


def test_states_must_be_pairs():
    for bad in ((), ({},), ({}, {}, {})):
        for states in ((bad, ({}, {})), (({}, {}), bad)):
            with pytest.raises(ValueError, match="unpack"):
                qs._runtime_vocabulary_refreshed(*states)


def test_reload_from_disk(monkeypatch):
    fresh = {"fresh": True}
    monkeypatch.setattr(obfuscation, "load_vocabulary", lambda data_dir: fresh)
    qs._load_vocabulary = lambda *args, **kwargs: pytest.fail("the disk came first")
    qs._era_config, registry = {"era_id": 7}, object()
    qs._vocabulary = registry
    qs._sync_manager = SimpleNamespace(_data_dir="/data")
    qs._backtester = SimpleNamespace(raw_vocabulary=None)
    assert qs._reload_runtime_vocabulary_after_freshness("top") is None
    assert qs._vocabulary_raw is fresh
    assert qs._backtester.raw_vocabulary is fresh
    assert qs._vocabulary is registry
    qs._backtester = SimpleNamespace()
    qs._reload_runtime_vocabulary_after_freshness()
    assert vars(qs._backtester) == {}
    qs._vocabulary_raw, qs._sync_manager = "old", None
    for loader, config in ((None, {}), (dict, None)):
        qs._load_vocabulary, qs._era_config = loader, config
        qs._reload_runtime_vocabulary_after_freshness()
        assert qs._vocabulary_raw == "old"


def test_failed_disk_reload_falls_back_to_the_loader(monkeypatch, caplog):
    caplog.set_level("DEBUG", logger="quillstone.simulate_signal")
    fault = OSError("unreadable")

    def refuse(data_dir):
        raise fault

    monkeypatch.setattr(obfuscation, "load_vocabulary", refuse)
    qs._sync_manager = SimpleNamespace(_data_dir="/data")
    qs._era_config = {"era_id": 7}
    qs._load_vocabulary = lambda **kwargs: kwargs
    qs._reload_runtime_vocabulary_after_freshness("top")
    assert qs._vocabulary_raw == {"era_id": 7, "named_universe": "top"}
    [entry] = caplog.records
    text = "failed to reload runtime vocabulary from disk"
    assert (entry.levelname, entry.msg, entry.args) == ("DEBUG", text, ())
    assert entry.exc_info[:2] == (OSError, fault)
    assert entry.exc_info[2] is not None
    monkeypatch.setattr(obfuscation, "load_vocabulary", lambda data_dir: "partly")
    qs._backtester = type("Fixed", (), {"raw_vocabulary": property(lambda self: 1)})()
    qs._reload_runtime_vocabulary_after_freshness("top")
    assert qs._vocabulary_raw == {"era_id": 7, "named_universe": "top"}
    monkeypatch.setattr(obfuscation, "load_vocabulary", lambda data_dir: exec("raise SystemExit"))
    with pytest.raises(SystemExit):
        qs._reload_runtime_vocabulary_after_freshness("top")


@pytest.mark.parametrize("manager", [None, SimpleNamespace(), SimpleNamespace(_data_dir="")])
def test_loader_is_called_by_falling_arity(manager):
    qs._sync_manager, qs._era_config = manager, {"era_id": 7}
    calls = []

    def loader(*args, **kwargs):
        calls.append((args, kwargs))
        if len(calls) < accepted:
            raise TypeError
        return calls[-1]

    qs._load_vocabulary = loader
    forms = [((), {"era_id": 7, "named_universe": "top"}), ((7,), {}), ((), {})]
    for accepted in (1, 2, 3):
        calls.clear()
        qs._reload_runtime_vocabulary_after_freshness("top")
        assert calls == forms[:accepted]
        assert qs._vocabulary_raw == forms[accepted - 1]
    accepted = 4
    calls.clear()
    with pytest.raises(TypeError):
        qs._reload_runtime_vocabulary_after_freshness("top")
    qs._load_vocabulary = lambda **kwargs: 1 / 0
    with pytest.raises(ZeroDivisionError):
        qs._reload_runtime_vocabulary_after_freshness("top")
    assert qs._vocabulary_raw == forms[2]

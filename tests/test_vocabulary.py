"""From the synced vocabulary to the function store."""

import sys
from contextlib import suppress
from json import JSONDecoder
from types import ModuleType

import pytest

import quillstone.function_store as function_store
import quillstone.simulate_signal as qs


class Entry:
    def __init__(self, **fields):
        self.fields = fields


class Store:
    def __init__(self):
        self.entries = {}

    def has(self, name):
        return name in self.entries

    def add(self, entry):
        self.entries[entry.fields["name"]] = entry.fields


@pytest.fixture
def plain_store(monkeypatch):
    """A function store that takes any entry; returns the entries built from a vocabulary."""
    monkeypatch.setattr(function_store, "FunctionStore", Store)
    monkeypatch.setattr(function_store, "FunctionEntry", Entry)
    return lambda vocabulary: qs._build_obfuscated_store(vocabulary).entries


def walk(node, default="d", path=()):
    return list(qs._walk_synced_function_payloads(node, default, path))


def test_walk_finds_records_in_order():
    a, b, c = {"name": "a", "deeper": {"name": "x"}}, {"name": ""}, {"name": "c"}
    assert walk([a, 5, "s", [c], b, None]) == [(a, (), "d"), (b, (), "d")]
    assert walk([a])[0][0] is a
    for nothing in (None, (a,), "text", 5, {}, []):
        assert walk(nothing) == []
    tree = {"f": {"s": [a], 7: c}, "g": {None: {"name": 0, "h": [b]}}}
    assert walk(tree, path=("top",)) == [
        (a, ("top", "f", "s"), "d"), (c, ("top", "f", 7), "d"),
        (b, ("top", "g", None, "h"), "d"),
    ]  # fmt: skip
    assert walk({"family": (a,)}) == []


def test_sections_are_read_in_their_order():
    record = {"name": "r"}
    sections = ["reductions", "aggregations", "rotations", "features", "filtrations"]
    found = qs._iter_synced_function_payloads({section: [record] for section in sections})
    assert [kind for _, _, kind in found] == ["rotation", "filtration", "reduction", "aggregation"]
    assert list(qs._iter_synced_function_payloads({})) == []


def test_walking_is_lazy():
    asked = []

    class Vocabulary(dict):
        def get(self, key, *default):
            asked.append((key, *default))
            return [{"name": key}]

    generator = qs._iter_synced_function_payloads(Vocabulary())
    assert iter(generator) is generator
    assert asked == []
    next(generator)
    assert asked == [("rotations",)]
    next(generator)
    assert asked == [("rotations",), ("filtrations",)]
    generator.close()
    with pytest.raises(StopIteration):
        next(generator)
    assert len(asked) == 2
    failing = qs._iter_synced_function_payloads(None)
    with pytest.raises(AttributeError):
        next(failing)
    with pytest.raises(StopIteration):
        next(failing)


def test_cyclic_and_deep_trees():
    ring = {}
    ring["again"] = ring
    with pytest.raises(RecursionError):
        walk(ring)
    ring.clear()
    deep = record = {}
    for _ in range(100_000):
        record["g"] = record = {}
    record["name"] = "bottom"
    with suppress(RecursionError):
        [(found, path, _)] = walk(deep)
        assert found is record
        assert len(path) == 100_000
    while deep:
        deep = deep.pop("g", None)


def test_fields_of_an_entry(plain_store):
    entries = plain_store({"rotations": {"A": {"B": {"C": [{"name": "n"}]}}}})
    assert list(entries["n"].items()) == [
        ("name", "n"), ("function_type", "rotation"), ("family", "A"), ("subfamily", "B"),
        ("param_schema", {}), ("stateful", False), ("arity", 0), ("module_path", ""),
        ("class_name", ""), ("status", "approved"), ("creator_wallet", ""),
        ("function_version", 1), ("engine_only", False), ("factory", None),
    ]  # fmt: skip
    schema = {"window": {}}
    record = {
        "name": 5, "function_type": "own", "param_schema": schema, "stateful": "yes", "arity": "2",
        "module_path": "json", "class_name": "JSONDecoder", "status": 1, "creator_wallet": 2.5,
        "function_version": "3", "engine_only": [0],
    }  # fmt: skip
    entry = plain_store({"filtrations": [record]})[5]
    assert list(entry.values()) == [
        5, "own", "", "", schema, True, 2, "json", "JSONDecoder", "1", "2.5", 3, True, JSONDecoder,
    ]  # fmt: skip
    assert entry["param_schema"] is schema
    falsy = dict.fromkeys(record, None) | {"name": "n", "arity": 0, "function_version": 0}
    assert plain_store({"rotations": [falsy]})["n"] == entries["n"] | {
        "family": "",
        "subfamily": "",
    }


@pytest.mark.parametrize(
    ("record", "path", "expected"),
    [
        ({"function_family": "", "family": "f", "subfamily": 5}, (), ("f", "5")),
        ({"function_family": 3, "family": "f", "function_subfamily": "s"}, ("A", "B"), ("3", "s")),
        ({}, ("A",), ("A", "")),
        ({"family": 0, "subfamily": []}, (0, None), ("", "")),
    ],
)
def test_family_of_an_entry(plain_store, record, path, expected):
    tree = [{"name": "n", **record}]
    for key in reversed(path):
        tree = {key: tree}
    entry = plain_store({"reductions": tree})["n"]
    assert (entry["family"], entry["subfamily"], entry["function_type"]) == (*expected, "reduction")


def test_first_record_of_a_name_wins(plain_store, logged):
    entries = plain_store({
        "reductions": [{"name": "n", "arity": 2}, {"name": None}],
        "rotations": [{"name": "n", "arity": 1}, {"name": "n", "arity": "bad"}],
    })  # fmt: skip
    assert [entry["function_type"] for entry in entries.values()] == ["rotation"]
    assert logged() == []


def test_bad_records_are_logged_and_skipped(plain_store, monkeypatch, logged):
    def add(self, entry):
        if entry.fields["name"] == "refused":
            raise OSError("full")
        self.entries[entry.fields["name"]] = entry.fields

    monkeypatch.setattr(Store, "add", add)
    qs._factory_from_catalog_path = lambda path, name: 1 / 0 if name == "Broken" else None
    records = [
        {"name": "bad arity", "arity": "x"}, {"name": "refused"},
        {"name": "bad factory", "class_name": "Broken"}, {"name": "good"},
        {"name": "bad version", "function_version": []}, {"name": "worse", "arity": [1]},
    ]  # fmt: skip
    assert list(plain_store({"rotations": records})) == ["good", "bad version"]
    assert [(level, text, args[0], type(args[1])) for level, text, args in logged()] == [
        ("WARNING", "Failed to register tokenized entry '%s': %s", name, kind)
        for name, kind in (("bad arity", ValueError), ("refused", OSError),
                           ("bad factory", ZeroDivisionError), ("worse", TypeError))
    ]  # fmt: skip


@pytest.mark.parametrize("key", ["function_type", "family", "subfamily", "module_path",
                                 "class_name"])  # fmt: skip
def test_errors_before_the_protected_part_abort(plain_store, key):
    class Bad:
        def __bool__(self):
            raise ZeroDivisionError

    with pytest.raises(ZeroDivisionError):
        plain_store({"rotations": [{"name": "n", key: Bad()}]})
    qs._factory_from_catalog_path = lambda *args: (_ for _ in ()).throw(KeyboardInterrupt())
    with pytest.raises(KeyboardInterrupt):
        plain_store({"rotations": [{"name": "n"}]})


def test_store_classes_are_looked_up_when_building(monkeypatch):
    reloaded = ModuleType("quillstone.function_store")
    reloaded.FunctionStore, reloaded.FunctionEntry = Store, Entry
    kept = qs.FunctionStore()
    assert qs._is_function_store_registry(kept)
    assert not qs._is_function_store_registry(Store())
    monkeypatch.setitem(sys.modules, "quillstone.function_store", reloaded)
    built = qs._build_obfuscated_store({})
    assert type(built) is Store
    assert qs._is_function_store_registry(built)
    assert qs._is_function_store_registry(kept)
    for other in (None, {}, object()):
        assert qs._is_function_store_registry(other) is False


@pytest.mark.parametrize("lost", ["quillstone.function_store", "somewhere.else", None])
def test_registry_test_without_its_module(monkeypatch, lost):
    class Finder:
        @staticmethod
        def find_spec(name, path=None, target=None):
            if name == "quillstone.function_store":
                raise ModuleNotFoundError("gone", name=lost)

    monkeypatch.delitem(sys.modules, "quillstone.function_store")
    monkeypatch.setattr(sys, "meta_path", [Finder, *sys.meta_path])
    assert qs._is_function_store_registry(qs.FunctionStore())
    if lost == "quillstone.function_store":
        assert qs._is_function_store_registry(object()) is False
    else:
        with pytest.raises(ModuleNotFoundError, match="gone"):
            qs._is_function_store_registry(object())
    with pytest.raises(ModuleNotFoundError, match="gone"):
        qs._build_obfuscated_store({})

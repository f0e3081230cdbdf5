import logging
import threading

import pytest

import quillstone.simulate_signal as qs
from collaborators import PATIENCE, Blocker, Kit


@pytest.fixture(autouse=True)
def module_as_loaded(monkeypatch):
    """Every test finds the module as it was loaded, and leaves no simulation running."""
    blockers = []
    init = Blocker.__init__
    monkeypatch.setattr(
        Blocker, "__init__", lambda self, *args: (init(self, *args), blockers.append(self))[0]
    )
    before = dict(vars(qs))
    threads = set(threading.enumerate())
    yield
    for blocker in blockers:
        blocker.leave.set()
    for thread in set(threading.enumerate()) - threads:
        thread.join(PATIENCE)
        assert not thread.is_alive(), "a simulation is still running"
    for name in set(vars(qs)) - set(before):
        delattr(qs, name)
    for name, value in before.items():
        if vars(qs).get(name, vars) is not value:
            setattr(qs, name, value)


@pytest.fixture
def make_kit(tmp_path):
    return lambda *args, **kwargs: Kit(tmp_path, *args, **kwargs)


@pytest.fixture
def kit(make_kit):
    return make_kit()


@pytest.fixture
def logged(caplog):
    """The module's log records as (level, format, arguments)."""
    caplog.set_level(logging.DEBUG, logger="quillstone.simulate_signal")
    return lambda: [(r.levelname, r.msg, r.args) for r in caplog.records]

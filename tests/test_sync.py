"""Phases 2 and 3: one sync for all simulations, the era id, vault and vocabulary."""

import threading
from types import SimpleNamespace

import pytest

import quillstone.simulate_signal as qs
from collaborators import PATIENCE, SEED, node, vocabulary
from quillstone.function_store import FunctionStore
from quillstone.sync import SyncError

SEED_REQUIRED = (
    "shuffle_seed.enc is required for simulation reconstruction. "
    "Run data sync or pass a sync manager/data_dir that exposes the synced seed."
)


class NoticedEvent(threading.Event):
    """The shared sync event, telling when a follower waits on it."""

    def __init__(self):
        super().__init__()
        self.waited = threading.Semaphore(0)
        self.timeouts = []

    def wait(self, timeout=None):
        self.timeouts.append(timeout)
        self.waited.release()
        return super().wait(timeout)


def start_followers(kit, count):
    """A leader that is syncing and `count` followers that wait for it."""
    event = qs._sync_event = NoticedEvent()
    leader = kit.start()
    kit.blocked.wait_until_entered()
    followers = [qs.simulate_signal(node(), "top", signal_pool_id="p1") for _ in range(count)]
    for _ in followers:
        assert event.waited.acquire(timeout=PATIENCE)
    return leader, followers


def test_followers_share_the_leaders_sync(kit):
    kit.blocked = kit.script.block("request_for_sync")
    leader, followers = start_followers(kit, 3)
    assert qs._sync_in_progress is True
    assert qs._sync_event.timeouts == [30, 30, 30]
    assert not qs._sync_lock.locked()
    kit.blocked.leave.set()
    results = [handle.result() for handle in (leader, *followers)]
    assert all(result.passed for result in results)
    assert kit.script.names().count("request_for_sync") == 1
    assert (qs._sync_in_progress, qs._sync_exception_cache) == (False, None)
    assert qs._sync_result_cache == "synced"
    assert qs._sync_event.is_set()
    kit.script.on("request_for_sync", lambda: "again")
    assert kit.run().passed
    assert kit.script.names().count("request_for_sync") == 2
    assert qs._sync_result_cache == "again"


@pytest.mark.parametrize(
    "fault", [SyncError("no network"), KeyboardInterrupt("stop"), SystemExit(3)]
)
def test_followers_fail_with_the_leaders_error_and_the_next_run_syncs_anew(kit, fault):
    qs._sync_result_cache = "kept"
    kit.blocked = kit.script.block("request_for_sync", fault)
    leader, followers = start_followers(kit, 2)
    kit.blocked.leave.set()
    for handle in (leader, *followers):
        with pytest.raises(type(fault)) as caught:
            handle.result()
        assert caught.value is fault
        assert handle.status().message == f"Error: {fault}"
    assert qs._sync_exception_cache is fault
    assert (qs._sync_in_progress, qs._sync_result_cache) == (False, "kept")
    kit.script.on("request_for_sync", lambda: None)
    assert kit.run().passed
    assert qs._sync_exception_cache is None
    assert kit.script.names().count("request_for_sync") == 2


def test_follower_times_out_while_the_leader_goes_on(kit):
    timeouts = []
    kit.blocked = kit.script.block("request_for_sync")
    leader = kit.start()
    kit.blocked.wait_until_entered()
    shared = qs._sync_event
    qs._sync_event = SimpleNamespace(wait=lambda timeout=None: timeouts.append(timeout))
    error = kit.failure()
    qs._sync_event = shared
    assert (type(error), str(error)) == (
        SyncError, "Timed out waiting for simulation data sync to complete"
    )  # fmt: skip
    assert timeouts == [30]
    assert qs._sync_in_progress is True
    kit.blocked.leave.set()
    assert leader.result().passed


def test_cancelled_follower_still_waits_for_the_leader(kit):
    kit.blocked = kit.script.block("request_for_sync")
    leader, [follower] = start_followers(kit, 1)
    follower.cancel()
    assert follower._thread.is_alive()
    kit.blocked.leave.set()
    assert leader.result().passed
    with pytest.raises(qs.CancelledError):
        follower.result()
    assert kit.script.names().count("release") == 2


def test_era_id_is_the_synced_one(kit):
    del kit.sync_manager.bytes_downloaded, kit.sync_manager.total_bytes
    kit.script.on("get_manifest", lambda: SimpleNamespace(era_id="7"))
    blocked = kit.script.block("load_vocabulary")
    kit.era["era_id"] = 8
    handle = kit.start()
    blocked.wait_until_entered()
    assert handle.status().era_id == 7
    assert handle.status().message == "Initializing vault and loading vocabulary for era 7..."
    assert (handle._config_era_id, handle._acquired, handle._pipeline_acquired) == (8, True, True)
    handle.cancel()


def test_seed_reaches_backtester_and_vault(kit):
    keywords = {"shuffle_blob": SEED, "wallet_secret": "secret", "era_id": 7}
    kit.run()
    for name in ("initialize_era_vault", "init_if_needed", "init_reconstruction"):
        assert kit.script.arguments(name) == ((), keywords)
    names = [name for name in kit.script.names() if "init" in name or name == "load_vocabulary"]
    assert names == [
        "initialize_era_vault", "init_if_needed", "load_vocabulary", "init_reconstruction",
    ]  # fmt: skip
    del kit.backtester.initialize_era_vault, kit.vault.init_if_needed
    calls = []

    def initialize(*args, **kwargs):
        calls.append((args, kwargs))
        if args or kwargs:
            raise TypeError("takes no arguments")

    kit.vault.initialize = initialize
    kit.sync_manager.data_dir = vars(kit.sync_manager).pop("_data_dir")
    kit.run()
    assert calls == [((), keywords), ((SEED, "secret", 7), {}), ((), {})]


@pytest.mark.parametrize("ready", [True, False])
def test_vault_failure_may_be_ignored(kit, ready):
    fault = RuntimeError("already initialised")
    asked = []
    kit.script.on("init_if_needed", fault)
    qs.vault_already_initialized_is_ready = lambda *args: asked.append(args) or ready
    if ready:
        assert kit.run().passed
    else:
        assert kit.failure() is fault
    assert asked == [(kit.vault, fault)]


def test_seed_file_rules(tmp_path):
    file = tmp_path / "shuffle_seed.enc"
    for missing in (None, "", tmp_path, tmp_path / "nowhere", str(tmp_path)):
        with pytest.raises(RuntimeError) as caught:
            qs._load_runtime_shuffle_blob(missing)
        assert str(caught.value) == SEED_REQUIRED
    for size in (0, 59, 61):
        file.write_bytes(bytes(size))
        with pytest.raises(ValueError, match=f"^Shuffle seed must be 60 bytes, got {size}$"):
            qs._load_runtime_shuffle_blob(tmp_path)
    file.write_bytes(SEED)
    assert qs._load_runtime_shuffle_blob(str(tmp_path)) == SEED
    assert qs._load_runtime_shuffle_blob(tmp_path) == SEED
    for bad in (None, "x" * 60, list(SEED)):
        with pytest.raises(ValueError, match=r"^shuffle_seed\.enc must be bytes$"):
            qs._validate_shuffle_blob(bad)


def test_vocabulary_is_kept_or_built(kit):
    registry = kit.pieces["vocabulary"]
    kit.run()
    assert kit.script.arguments("load_vocabulary") == ((7,), {})
    assert qs._vocabulary is registry
    assert qs._vocabulary_raw == vocabulary()
    record = {"name": "rank", "arity": 1}
    raw = vocabulary(rotations={"rank": {"cross": [record]}})
    kit.script.on("load_vocabulary", lambda era_id: raw)
    for replaced in (None, {"a": "raw mapping"}, object()):
        kit.pieces["vocabulary"] = replaced
        kit.run()
        assert isinstance(qs._vocabulary, FunctionStore)
        assert qs._vocabulary.has("rank")
        assert qs._vocabulary_raw is raw

"""A short research session: simulate a dozen signals, combine the useful ones by a strategy.

Run as `python examples/research_session.py --prices closes.csv --out results`,
with the folder of the built module and `localkit` on `PYTHONPATH`. `make demo` does so.

`closes.csv` holds daily closes: a date column, then one column per ticker (gzip is fine, an empty
cell means "not listed"). A second run works on the data directory that the first one has built.
"""

from __future__ import annotations

import argparse
import shutil
import signal
import sys
import threading
import time
from collections.abc import Sequence
from functools import partial
from pathlib import Path
from typing import TYPE_CHECKING

if TYPE_CHECKING:
    from expressions import Idea
    from quillstone.agent_onboarding import LocalRuntime
    from quillstone.sync import LocalSyncManager
    from session_views import Outcome, SessionView

SIGNAL_POOL = "alpha"
STRATEGY_POOL = "blend"
POLL_SECONDS = 0.05
EXIT_BAD_INPUT, EXIT_INTERRUPTED = 2, 130
# Universes whose file has another name than the universe.
UNIVERSE_OF_FILE = {"sp500_dataset": "us_large20"}


def sync(manager: LocalSyncManager, view: SessionView) -> None:
    """Bring the data directory up to date while a bar shows the bytes; raise what the sync raises.

    The sync runs on a thread of its own, so that the session can be ended at any moment.
    """
    failures: list[Exception] = []

    def work() -> None:
        try:
            manager.request_for_sync()
        except Exception as error:
            failures.append(error)

    thread = threading.Thread(target=work, daemon=True)
    with view.sync_bar() as show:
        thread.start()
        while thread.is_alive():
            thread.join(POLL_SECONDS)
            show(manager.bytes_downloaded, manager.total_bytes)
    if failures:
        raise failures[0]


def simulate(
    ideas: Sequence[Idea], runtime: LocalRuntime, view: SessionView, *, diagnose: bool
) -> list[Outcome]:
    """Simulate ideas side by side and keep those that pass every gate, in the ideas' order."""
    from quillstone.functions._typed_shapes import FunctionGraphNode
    from quillstone.simulate_signal import simulate_signal, simulate_strategy
    from session_views import FINAL_PHASES, Outcome

    running = []
    for idea in ideas:
        graph = FunctionGraphNode.from_raw(idea.graph)
        start = (
            partial(simulate_strategy, strategy_pool_id=STRATEGY_POOL)
            if graph.type == "reduction"
            else partial(simulate_signal, signal_pool_id=SIGNAL_POOL)
        )
        handle = start(
            graph,
            metaparameters=dict(idea.metaparameters),
            return_weights=True,
            fail_fast=not diagnose,
        )
        running.append((idea, graph, handle))

    with view.simulation_bars([idea.name for idea in ideas]) as show:
        while True:
            statuses = [handle.status() for _, _, handle in running]
            show(statuses)
            if all(status.phase in FINAL_PHASES for status in statuses):
                break
            time.sleep(POLL_SECONDS)

    outcomes = []
    for idea, graph, handle in running:
        outcome = Outcome(idea.name)
        try:
            result = handle.result()
        except Exception as error:  # one failed simulation does not end the session
            outcome.error = f"{type(error).__name__}: {error}"
        else:
            outcome.judge(result, runtime)
            if outcome.is_useful:
                runtime.accept(graph, result)
        outcomes.append(outcome)
    view.verdicts(outcomes)
    return outcomes


def run(options: argparse.Namespace) -> int:
    """Run the session; return the exit status."""
    # Imported here: numerical libraries take a moment, and an interruption must be caught then too.
    import quillstone.simulate_signal as simulations
    from expressions import ROUNDS, STRATEGY
    from pnl_chart import draw
    from quillstone.agent_onboarding import onboard
    from quillstone.local_data.price_csv import PriceFileError, universe_name
    from quillstone.sync import LocalSyncManager, SyncError
    from session_views import SessionView

    view = SessionView()
    stem = universe_name(options.prices)
    universe = UNIVERSE_OF_FILE.get(stem, stem)
    home: Path = options.out / universe
    view.title(f"research session on {universe}")
    manager = LocalSyncManager(home / "data", options.prices, named_universe=universe)
    try:
        if not options.prices.is_file():
            raise SyncError(f"no file of prices at {options.prices}")
        sync(manager, view)
    except (PriceFileError, SyncError) as error:
        print(f"error: {error}", file=sys.stderr)
        return EXIT_BAD_INPUT

    # Each session starts with empty pools; what earlier ones tried stays in the database.
    shutil.rmtree(manager.data_dir / "signals", ignore_errors=True)
    runtime = onboard(options.prices, home, sync_manager=manager)
    first_row = runtime.tracker.last_id()
    view.options(simulations.effective_simulation_options(runtime.era_config))

    outcomes: list[Outcome] = []
    for number, ideas in enumerate(ROUNDS, start=1):
        view.title(f"round {number} of {len(ROUNDS)}: {len(ideas)} signals")
        outcomes += simulate(ideas, runtime, view, diagnose=options.diagnose)
    useful = runtime.refresh_useful_signals(SIGNAL_POOL)
    view.title(f"strategy over {len(useful)} useful signals")
    if useful:
        outcomes += simulate([STRATEGY], runtime, view, diagnose=options.diagnose)
    else:
        view.note("No signal passed every gate, so there is nothing to combine.")

    view.table(outcomes)
    picture = draw(outcomes, options.out / f"{universe}.png", title=universe)
    recorded = len(runtime.tracker.evaluations(since_id=first_row))
    view.note(f"database: {runtime.tracker.path} ({recorded} evaluations recorded by this session)")
    view.note(f"picture:  {picture}" if picture else "picture:  none, as nothing passed")
    runtime.tracker.close()
    return 0


def main() -> int:
    """Read the command line and run the session; Ctrl-C ends it at once."""
    parser = argparse.ArgumentParser(description=(__doc__ or "").partition("\n")[0])
    parser.add_argument("--prices", type=Path, required=True, help="CSV of daily closes")
    parser.add_argument("--out", type=Path, default=Path("out"), help="folder for all results")
    parser.add_argument(
        "--diagnose", action="store_true", help="run every gate, also after one has failed"
    )
    try:
        return run(parser.parse_args())
    except KeyboardInterrupt:
        print("interrupted", file=sys.stderr)
        return EXIT_INTERRUPTED
    finally:
        # The interpreter is about to end: a Ctrl-C from here on would only spoil the exit status.
        signal.signal(signal.SIGINT, signal.SIG_IGN)


if __name__ == "__main__":
    sys.exit(main())

"""What the research session shows: bars while it works, verdicts, and the table at its end."""

from __future__ import annotations

import contextlib
from collections.abc import Callable, Iterator, Sequence
from dataclasses import dataclass, field
from typing import TYPE_CHECKING

from rich.box import SIMPLE_HEAD
from rich.console import Console
from rich.markup import escape
from rich.progress import BarColumn, DownloadColumn, Progress, TextColumn, TimeElapsedColumn
from rich.table import Table

from quillstone._threshold_gates import evaluate_threshold_gates
from quillstone.simulator_engine.structure import structural_faults

if TYPE_CHECKING:
    from quillstone.agent_onboarding import LocalRuntime
    from quillstone.simulate_signal import SimulationOptions, SimulationResult, SimulationStatus

FINAL_PHASES = ("complete", "cancelled", "error")
GATES = ("structure", "thresholds", "correlation", "improvement")
PLAIN_WIDTH = 120

# How far along a simulation is when it enters a phase.
_PHASE_SHARE = {
    "syncing": 0.0,
    "initializing": 0.2,
    "evaluating": 0.4,
    "backtesting": 0.7,
    "computing_mi": 0.9,
    "complete": 1.0,
}


@dataclass
class Outcome:
    """How one simulation ended.

    Attributes:
        name: The idea's name.
        result: Its result, None when it failed.
        error: Why it failed, None when there is a result.
        gates: Per gate in the order of `GATES`: None when it was not reached, else why it
            failed, empty when it passed.
    """

    name: str
    result: SimulationResult | None = None
    error: str | None = None
    gates: dict[str, str | None] = field(default_factory=dict)

    @property
    def is_useful(self) -> bool:
        """Whether every gate was passed."""
        return self.result is not None and self.result.failure_reason is None

    @property
    def reason(self) -> str:
        """Why it is not useful, in words."""
        failed = [f"{gate}: {why}" for gate, why in self.gates.items() if why]
        return self.error or "; ".join(failed)

    def judge(self, result: SimulationResult, runtime: LocalRuntime) -> None:
        """Find each gate's verdict with its figures; the result itself names the gate alone."""
        self.result, era = result, runtime.era_config
        kind, own_id = (
            ("strategy", result.strategy_pool_id)
            if result.pool_kind == "strategy"
            else ("signal", result.signal_pool_id)
        )
        pool = next(p for p in era[f"{kind}_pools"] if p["pool_id"] == own_id)
        rule = era["universe_rules"][runtime.sync_manager.named_universe]["rule_id"]
        metrics = {
            "sharpe": result.per_column_stats[f"{era['evaluation_pnl_columns'][0]}_sharpe"],
            "is_correlation": result.is_correlation,
            **vars(result.stats),
        }
        faults = structural_faults(result.processed_weights, runtime.backtester.limits)
        scalars = evaluate_threshold_gates(
            metrics=metrics, threshold_set=pool["universes"][rule][f"{kind}_is_thresholds"]
        )
        key = "is_correlation_threshold"
        correlation = evaluate_threshold_gates(
            metrics=metrics, threshold_set={}, pool_thresholds={key: pool[key]}
        )
        reasons = {
            "structure": ", ".join(faults) if result.structural_failed else "",
            "thresholds": ", ".join(map(str, scalars.failures)),
            "correlation": ", ".join(map(str, correlation.failures)),
        }
        stop = False
        for gate, why in reasons.items():
            self.gates[gate] = None if stop else why
            stop = stop or (bool(why) and result.mi_passed is None)
        self.gates["improvement"] = None if result.mi_passed is None else ""
        if result.mi_passed is False:
            score = "unavailable" if result.mi_score is None else f"{result.mi_score:.2f}"
            self.gates["improvement"] = f"score {score} must be at least {result.is_pnl_mi:g}"


class SessionView:
    """Writes to the terminal, or plain text where there is none."""

    def __init__(self) -> None:
        console = Console()
        self._console = console if console.is_terminal else Console(width=PLAIN_WIDTH)

    def title(self, text: str) -> None:
        """Begin a section."""
        self._console.print(f"\n[bold]{escape(text)}[/]")

    def note(self, text: str) -> None:
        """Write one line, however long; paths stay whole."""
        self._console.print(escape(text), soft_wrap=True, highlight=False)

    @contextlib.contextmanager
    def sync_bar(self) -> Iterator[Callable[[int, int], None]]:
        """Show a bar while data are synced; yields what to call with (bytes done, bytes in all)."""
        columns = (TextColumn("data sync"), BarColumn(), DownloadColumn(), TimeElapsedColumn())
        with Progress(*columns, console=self._console) as progress:
            task = progress.add_task("", total=None)
            yield lambda done, total: progress.update(task, completed=done, total=total or None)

    @contextlib.contextmanager
    def simulation_bars(
        self, names: Sequence[str]
    ) -> Iterator[Callable[[Sequence[SimulationStatus]], None]]:
        """Show a bar per simulation; yields what to call with their statuses."""
        columns = (
            TextColumn("{task.description}"),
            BarColumn(bar_width=24),
            TextColumn("{task.fields[phase]:13}"),
            TextColumn("{task.fields[seconds]:5.1f} s"),
        )
        with Progress(*columns, console=self._console) as progress:
            tasks = [
                progress.add_task(escape(name), total=1.0, phase="", seconds=0.0) for name in names
            ]
            seconds = [0.0] * len(names)

            def show(statuses: Sequence[SimulationStatus]) -> None:
                for index, (task, status) in enumerate(zip(tasks, statuses, strict=True)):
                    # The handle's clock goes on after its end.
                    if progress.tasks[index].fields["phase"] not in FINAL_PHASES:
                        seconds[index] = status.elapsed_s
                    done = _PHASE_SHARE.get(status.phase)
                    if status.phase == "syncing":
                        done = 0.2 * status.progress
                    progress.update(
                        task, completed=done, phase=status.phase, seconds=seconds[index]
                    )

            yield show

    def options(self, options: SimulationOptions) -> None:
        """List the era's universes and engines."""
        for universe in options["universe_options"]:
            self.note(f"universe {universe['named_universe']} (rule {universe['rule_id']})")
        for name, engine in options["engine_definitions"].items():
            rules = ", ".join(f"{key} {value}" for key, value in engine.items() if key != "engine")
            self.note(f"engine   {name}: {engine['engine']} ({rules})")

    def verdicts(self, outcomes: Sequence[Outcome]) -> None:
        """Say of each simulation whether it is useful, and if not, why."""
        for outcome in outcomes:
            mark = "[green]useful[/]  " if outcome.is_useful else "[red]rejected[/]"
            line = f"{outcome.name:32} {outcome.reason}".rstrip()
            self._console.print(f"  {mark} {escape(line)}", highlight=False, soft_wrap=True)

    def table(self, outcomes: Sequence[Outcome]) -> None:
        """Show gates and figures of every simulation. Figures are net of costs."""
        table = Table(
            box=SIMPLE_HEAD,
            padding=(0, 0, 0, 1),
            title=f"gates: {', '.join(GATES)}; figures net of costs, a year has 252 days",
        )
        table.add_column("expression", min_width=8)
        table.add_column("gates", no_wrap=True)
        for figure in ("Sharpe", "return", "drawdown", "turnover", "corr.", "score"):
            table.add_column(figure, justify="right", no_wrap=True)
        for outcome in outcomes:
            table.add_row(escape(outcome.name), _marks(outcome), *_figures(outcome))
        self._console.print()
        self._console.print(table)


def _marks(outcome: Outcome) -> str:
    """Verdicts in the order of `GATES`, a dash for a gate that was not reached."""
    marks = {None: "[dim]-[/]   ", "": "[green]pass[/]"}
    gates = (outcome.gates.get(gate) for gate in GATES)
    return " ".join(marks.get(why, "[red]FAIL[/]") for why in gates)


def _figures(outcome: Outcome) -> list[str]:
    result = outcome.result
    if result is None:
        return ["error"]
    stats, score = result.per_column_stats, result.mi_score
    return [
        f"{stats['pnl_net_sharpe']:.2f}",
        f"{stats['pnl_net_returns']:.1%}",
        f"{stats['pnl_net_drawdown']:.1%}",
        f"{result.stats.avg_turnover:.3f}",
        f"{result.is_correlation:.2f}" if outcome.gates["correlation"] is not None else "-",
        "-" if score is None else f"{score:.2f}",
    ]

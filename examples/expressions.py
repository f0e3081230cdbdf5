"""The expressions of the research session, and short ways to write expression graphs."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any

Graph = dict[str, Any]


def feature(name: str) -> Graph:
    """A feature of the vocabulary, one value per day and ticker."""
    return {"type": "feature", "name": name}


def rotation(name: str, *operands: Graph, **params: Any) -> Graph:
    """A function of one or more operands."""
    return {"type": "rotation", "name": name, "params": params, "children": list(operands)}


def combine(reduction: str, choice: str, /, *, of: Graph | None = None, **params: Any) -> Graph:
    """A strategy: `reduction` over the useful signals that the filtration `choice` keeps."""
    filtration = {
        "type": "filtration",
        "name": choice,
        "params": params,
        "children": [of] if of else [],
    }
    return {"type": "reduction", "name": reduction, "children": [filtration]}


@dataclass(frozen=True)
class Idea:
    """An expression with the name that the session shows.

    Attributes:
        name: What it is, in a few words.
        graph: Its expression graph, dictionary form.
        metaparameters: Options of transform stages, by the stage's name.
    """

    name: str
    graph: Graph
    metaparameters: Mapping[str, str] = field(default_factory=dict)


def _smooth(graph: Graph, days: int = 10) -> Graph:
    return rotation("linear_decay", graph, window=days)


_WEEK = feature("reversal_5d")
_YEAR = feature("momentum_250d")
_RISK = feature("volatility_60d")

# Later rounds are judged against what earlier ones have found.
ROUNDS: tuple[tuple[Idea, ...], ...] = (
    (
        Idea("reversal of a week", _smooth(rotation("rank", _WEEK))),
        Idea(
            "momentum beside risk",
            _smooth(rotation("residual", rotation("rank", _YEAR), rotation("rank", _RISK))),
        ),
        Idea("high volatility", _smooth(rotation("rank", _RISK))),
        Idea("reversal of a day", rotation("rank", feature("reversal_1d"))),
    ),
    (
        Idea("reversal of a week over risk", _smooth(rotation("divide", _WEEK, _RISK))),
        Idea(
            "above the 60-day low",
            _smooth(rotation("zscore", feature("distance_low_60d")), days=20),
        ),
        Idea("low volatility", _smooth(rotation("negate", rotation("rank", _RISK)))),
        Idea("skewed upwards", _smooth(rotation("rank", feature("skewness_60d")))),
    ),
    (
        Idea(
            "unusual pull-back",
            _smooth(rotation("negate", rotation("ts_zscore", feature("distance_high_250d")))),
        ),
        Idea("unusual week", rotation("ts_zscore", _WEEK), {"smooth": "decay_20d"}),
        Idea("volatility, not neutralised", _RISK, {"neutralise": "none"}),
        Idea("after a crash", rotation("clip", feature("returns_20d"), low=-1.0, high=-0.25)),
    ),
)

STRATEGY = Idea("useful signals by inverse risk", combine("inverse_volatility", "all"))

"""In which order the nodes of a graph are computed, each distinct one once."""

from __future__ import annotations

import os
from dataclasses import dataclass

from quillstone.functions._typed_shapes import FunctionGraphNode, post_order


@dataclass(frozen=True)
class PlanStep:
    """One distinct node, and the steps (by index) that compute its operands."""

    node: FunctionGraphNode
    operands: tuple[int, ...]


@dataclass(frozen=True)
class SearchPlan:
    """The work of one evaluation; the last step yields the expression's value.

    ``uses[i]`` tells how many later steps read step i, so that its value can be let go after
    the last of them. ``n_jobs`` is the number of workers granted.
    """

    graph_hash: str
    expression_type: str
    steps: tuple[PlanStep, ...]
    uses: tuple[int, ...]
    n_jobs: int

    @property
    def features(self) -> tuple[str, ...]:
        """The features that the expression reads, in the order of their first use."""
        names = (step.node.feature_name for step in self.steps)
        return tuple(dict.fromkeys(name for name in names if name is not None))


def compute_search_plan(
    graph: FunctionGraphNode,
    expression_type: str,
    requested_n_jobs: int = 1,
) -> SearchPlan:
    """Plan the evaluation of a graph: equal sub-graphs become one step."""
    position: dict[str, int] = {}
    steps: list[PlanStep] = []
    uses: list[int] = []
    for node in post_order(graph):
        if node.graph_hash in position:
            continue
        operands = tuple(position[child.graph_hash] for child in node.children)
        for operand in operands:
            uses[operand] += 1
        position[node.graph_hash] = len(steps)
        steps.append(PlanStep(node, operands))
        uses.append(0)
    n_jobs = max(1, min(int(requested_n_jobs), os.cpu_count() or 1))
    return SearchPlan(graph.graph_hash, expression_type, tuple(steps), tuple(uses), n_jobs)

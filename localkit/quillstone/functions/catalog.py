"""The function sections of the synced vocabulary."""

from __future__ import annotations

from typing import Any

from quillstone.functions import arithmetic, cross_section, filtrations, reductions, time_series

_SECTIONS = {
    "rotations": (cross_section, time_series, arithmetic),
    "filtrations": (filtrations,),
    "reductions": (reductions,),
}


def vocabulary_sections() -> dict[str, dict[str, dict[str, list[dict[str, Any]]]]]:
    """Section -> family -> subfamily -> list of function records, ready for JSON."""
    sections: dict[str, dict[str, dict[str, list[dict[str, Any]]]]] = {}
    for section, modules in _SECTIONS.items():
        families = sections[section] = {}
        for module in modules:
            for function in module.FUNCTIONS:
                family = families.setdefault(function.FAMILY, {})
                family.setdefault(function.SUBFAMILY, []).append(function.record())
    return sections

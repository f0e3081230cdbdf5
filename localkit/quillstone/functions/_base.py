"""What every function of the vocabulary declares."""

from __future__ import annotations

from typing import Any, ClassVar


class CatalogFunction:
    """A function of the vocabulary: a frozen data class of its parameters that can be called.

    The class attributes make up its vocabulary record; PARAMS is the parameter schema.
    """

    NAME: ClassVar[str]
    TYPE: ClassVar[str]
    FAMILY: ClassVar[str]
    SUBFAMILY: ClassVar[str]
    ARITY: ClassVar[int] = 1
    PARAMS: ClassVar[dict[str, dict[str, Any]]] = {}
    STATEFUL: ClassVar[bool] = False
    VERSION: ClassVar[int] = 1

    @classmethod
    def record(cls) -> dict[str, Any]:
        """The function's record as it stands in the synced vocabulary."""
        return {
            "name": cls.NAME,
            "param_schema": {name: dict(rule) for name, rule in cls.PARAMS.items()},
            "arity": cls.ARITY,
            "module_path": cls.__module__,
            "class_name": cls.__name__,
            "stateful": cls.STATEFUL,
            "status": "approved",
            "function_version": cls.VERSION,
        }


class Rotation(CatalogFunction):
    """Turns float64 arrays [days x tickers] into one of the same shape.

    A value that is not defined is NaN. Row t of the result depends on rows 0 to t only.
    """

    TYPE = "rotation"


def days_rule(default: int, least: int = 1) -> dict[str, Any]:
    """Schema rule of a window or lag in trading days."""
    return {"type": "int", "default": default, "min": least, "max": 756}


def number_rule(default: float, least: float, most: float) -> dict[str, Any]:
    """Schema rule of a real number between two bounds."""
    return {"type": "float", "default": default, "min": least, "max": most}

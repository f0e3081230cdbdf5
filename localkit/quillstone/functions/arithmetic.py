"""Rotations that work value by value; NaN in an operand gives NaN."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np

from quillstone.functions._base import Rotation, number_rule
from quillstone.functions.cross_section import ratio


@dataclass(frozen=True)
class Negate(Rotation):
    """The value with the opposite sign."""

    NAME, FAMILY, SUBFAMILY = "negate", "arithmetic", "one_operand"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return -x


@dataclass(frozen=True)
class Sign(Rotation):
    """-1, 0 or 1."""

    NAME, FAMILY, SUBFAMILY = "sign", "arithmetic", "one_operand"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return np.sign(x)


@dataclass(frozen=True)
class Absolute(Rotation):
    """The magnitude."""

    NAME, FAMILY, SUBFAMILY = "absolute", "arithmetic", "one_operand"

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return np.abs(x)


@dataclass(frozen=True)
class Clip(Rotation):
    """Keeps values within [low, high], in the unit of the operand."""

    NAME, FAMILY, SUBFAMILY = "clip", "arithmetic", "one_operand"
    PARAMS = {"low": number_rule(-3.0, -1e12, 1e12), "high": number_rule(3.0, -1e12, 1e12)}
    low: float = -3.0
    high: float = 3.0

    def __post_init__(self) -> None:
        if self.low > self.high:
            raise ValueError(f"clip: low {self.low!r} is above high {self.high!r}")

    def __call__(self, x: np.ndarray) -> np.ndarray:
        return np.clip(x, self.low, self.high)


@dataclass(frozen=True)
class Add(Rotation):
    """Sum of two operands."""

    NAME, FAMILY, SUBFAMILY = "add", "arithmetic", "two_operands"
    ARITY = 2

    def __call__(self, x: np.ndarray, y: np.ndarray) -> np.ndarray:
        return x + y


@dataclass(frozen=True)
class Subtract(Rotation):
    """First operand less the second."""

    NAME, FAMILY, SUBFAMILY = "subtract", "arithmetic", "two_operands"
    ARITY = 2

    def __call__(self, x: np.ndarray, y: np.ndarray) -> np.ndarray:
        return x - y


@dataclass(frozen=True)
class Multiply(Rotation):
    """Product of two operands."""

    NAME, FAMILY, SUBFAMILY = "multiply", "arithmetic", "two_operands"
    ARITY = 2

    def __call__(self, x: np.ndarray, y: np.ndarray) -> np.ndarray:
        return x * y


@dataclass(frozen=True)
class Divide(Rotation):
    """First operand over the second, NaN where the second is zero."""

    NAME, FAMILY, SUBFAMILY = "divide", "arithmetic", "two_operands"
    ARITY = 2

    def __call__(self, x: np.ndarray, y: np.ndarray) -> np.ndarray:
        return ratio(x, y)


FUNCTIONS = (Negate, Sign, Absolute, Clip, Add, Subtract, Multiply, Divide)

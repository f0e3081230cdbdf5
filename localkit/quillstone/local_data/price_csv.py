"""Reads daily closes: a CSV of dates by tickers, plain or compressed with gzip."""

from __future__ import annotations

import csv
import datetime
import gzip
import io
import math
import os
import re
import zlib
from dataclasses import dataclass
from pathlib import Path

import numpy as np
from numpy.typing import NDArray

__all__ = ["PriceFileError", "PriceTable", "read_prices", "universe_name"]

MIN_TICKERS = 2
MIN_DAYS = 2
# Beyond these a cell is damaged: no close is so small or so large, and figures would overflow.
LEAST_PRICE, GREATEST_PRICE = 1e-6, 1e12
_GZIP_MAGIC = b"\x1f\x8b"


class PriceFileError(ValueError):
    """A file of prices that cannot be used; the text names row and column."""


@dataclass(frozen=True)
class PriceTable:
    """Daily closes of some tickers.

    Attributes:
        dates: Trading days, ascending, datetime64[D], [days].
        tickers: Column names, in the file's order.
        closes: Adjusted closes in the file's currency, float64, [days x tickers]; NaN where the
            ticker is not listed.
    """

    dates: NDArray[np.datetime64]
    tickers: tuple[str, ...]
    closes: NDArray[np.float64]


def universe_name(path: str | os.PathLike[str]) -> str:
    """Return a safe directory name from the stem of a file of prices ("My Fund.csv.gz" -> ...)."""
    stem = Path(path).name.split(".")[0].lower()
    return re.sub(r"[^a-z0-9_-]+", "_", stem).strip("_") or "prices"


def read_prices(content: bytes, name: str) -> PriceTable:
    """Parse the bytes of a file of prices.

    The first line names the columns: the date first, then one per ticker. Each further line has
    a date (YYYY-MM-DD, ascending) and one price per ticker; an empty cell means "not listed".

    Args:
        content: The file's bytes, plain or gzip.
        name: What messages call the file.

    Raises:
        PriceFileError: Something is wrong; the text names row (1 is the heading) and column.
    """
    rows = csv.reader(io.StringIO(_decoded(content, name), newline=""), strict=True)
    try:
        header = next(rows, [])
        tickers = _tickers([cell.strip() for cell in header], name)
        dates: list[datetime.date] = []
        closes: list[list[float]] = []
        for row in rows:
            if not any(cell.strip() for cell in row):
                continue
            where = f"{name}, row {rows.line_num}"
            if len(row) != len(tickers) + 1:
                raise PriceFileError(
                    f"{where}: {len(row)} columns where the heading has {len(tickers) + 1}"
                )
            dates.append(_date(row[0], f"{where}, column '{header[0].strip()}'", dates))
            closes.append(
                [_price(cell, where, ticker) for cell, ticker in zip(row[1:], tickers, strict=True)]
            )
    except csv.Error as error:
        raise PriceFileError(f"{name}, row {rows.line_num}: {error}") from error
    if len(dates) < MIN_DAYS:
        raise PriceFileError(f"{name}: {len(dates)} days of prices; at least {MIN_DAYS} are needed")
    table = np.array(closes, dtype=np.float64)
    for ticker, listed in zip(tickers, np.isfinite(table).any(axis=0), strict=True):
        if not listed:
            raise PriceFileError(f"{name}, column '{ticker}': no price on any day")
    return PriceTable(np.array(dates, dtype="datetime64[D]"), tickers, table)


def _decoded(content: bytes, name: str) -> str:
    if content.startswith(_GZIP_MAGIC):
        try:
            content = gzip.decompress(content)
        except (OSError, EOFError, zlib.error) as error:
            raise PriceFileError(f"{name}: the gzip data are damaged ({error})") from error
    try:
        return content.decode("utf-8-sig")
    except UnicodeDecodeError as error:
        row = content.count(b"\n", 0, error.start) + 1
        raise PriceFileError(f"{name}, row {row}: not UTF-8 text") from error


def _tickers(header: list[str], name: str) -> tuple[str, ...]:
    tickers = header[1:]
    if len(tickers) < MIN_TICKERS:
        raise PriceFileError(
            f"{name}, row 1: {len(header)} columns; a date column and at least "
            f"{MIN_TICKERS} tickers are needed"
        )
    for column, ticker in enumerate(tickers, start=2):
        if not ticker:
            raise PriceFileError(f"{name}, row 1, column {column}: the ticker is empty")
        if ticker in tickers[: column - 2]:
            raise PriceFileError(f"{name}, row 1, column {column}: '{ticker}' is there twice")
    return tuple(tickers)


def _date(cell: str, where: str, earlier: list[datetime.date]) -> datetime.date:
    text = cell.strip()
    try:
        date = datetime.date.fromisoformat(text)
    except ValueError:
        raise PriceFileError(f"{where}: '{text}' is not a date (YYYY-MM-DD)") from None
    if earlier and date == earlier[-1]:
        raise PriceFileError(f"{where}: the date {date} is there twice")
    if earlier and date < earlier[-1]:
        raise PriceFileError(f"{where}: {date} comes after {earlier[-1]}; dates must ascend")
    return date


def _price(cell: str, where: str, ticker: str) -> float:
    text = cell.strip()
    if not text:
        return math.nan
    try:
        price = float(text.replace("_", "?"))  # 1_000 is a number in Python only
    except ValueError:
        raise PriceFileError(f"{where}, column '{ticker}': '{text}' is not a number") from None
    if not (price > 0.0 and math.isfinite(price)):
        raise PriceFileError(f"{where}, column '{ticker}': {text} is not a positive price")
    if not LEAST_PRICE <= price <= GREATEST_PRICE:
        raise PriceFileError(
            f"{where}, column '{ticker}': {text} is no plausible price "
            f"({LEAST_PRICE:g} to {GREATEST_PRICE:g})"
        )
    return price

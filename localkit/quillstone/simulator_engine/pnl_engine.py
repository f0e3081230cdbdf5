"""Prices of a universe, and what weights would have earned on them."""

from __future__ import annotations

import json
import os
import threading
from dataclasses import dataclass
from pathlib import Path

import numpy as np

from quillstone.simulator_engine.pnl_statistics import PNL_DTYPE, PnlTable, daily_turnover


@dataclass(frozen=True)
class Market:
    """Prices of one universe.

    ``returns`` [days x tickers] is each close over the previous one less 1, zero where either is
    missing; ``dates`` datetime64[D] [days].
    """

    dates: np.ndarray
    tickers: tuple[str, ...]
    returns: np.ndarray


class PnlEngine:
    """Reads market data under ``data_dir`` and prices weights; threads may share one."""

    def __init__(self, data_dir: str | os.PathLike[str]) -> None:
        self._data_dir = Path(data_dir)
        self._lock = threading.Lock()
        self._markets: dict[str, tuple[object, Market]] = {}

    def market(self, named_universe: str) -> Market:
        """The universe's market, read again when its files have been replaced."""
        folder = self._data_dir / named_universe / "market"
        if not (folder / "closes.npy").exists():
            raise FileNotFoundError(f"universe {named_universe!r} has no prices in {folder}")
        files = [folder / name for name in ("closes.npy", "dates.npy", "tickers.json")]
        stamp = [(status.st_mtime_ns, status.st_ino) for status in map(os.stat, files)]
        with self._lock:
            held = self._markets.get(named_universe)
            if held is None or held[0] != stamp:
                held = self._markets[named_universe] = (stamp, _read_market(*files))
        return held[1]

    def pnl(self, weights: np.ndarray, market: Market, cost_bps: float) -> PnlTable:
        """Daily PnL of finite weights [days x tickers].

        Weights of day t are traded at day t's close and earn the return from t to t + 1, booked
        on day t + 1 together with the cost of that trade: ``cost_bps`` basis points of the
        capital bought and sold. The first day earns nothing.
        """
        table = np.zeros(len(weights), dtype=PNL_DTYPE)
        table["date"] = market.dates
        table["pnl_gross"][1:] = np.einsum("ij,ij->i", weights[:-1], market.returns[1:])
        costs = daily_turnover(weights)[:-1] * (cost_bps / 10_000.0)
        table["pnl_net"][1:] = table["pnl_gross"][1:] - costs
        return PnlTable(table)


def _read_market(closes_file: Path, dates_file: Path, tickers_file: Path) -> Market:
    closes = np.load(closes_file)
    dates = np.load(dates_file).astype("datetime64[D]")
    tickers = tuple(json.loads(tickers_file.read_text("utf-8")))
    if closes.shape != (len(dates), len(tickers)):
        raise ValueError(
            f"{closes_file} has shape {closes.shape}, expected {(len(dates), len(tickers))}"
        )
    returns = np.zeros_like(closes)
    returns[1:] = closes[1:] / closes[:-1] - 1.0
    returns = np.where(np.isfinite(returns), returns, 0.0)
    returns.setflags(write=False)
    return Market(dates, tickers, returns)

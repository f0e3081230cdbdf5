"""The shortest way from a file of prices to a simulated signal.

Run as `python examples/quickstart.py closes.csv results`,
with the folder of the built module and `localkit` on `PYTHONPATH`.
"""

from __future__ import annotations

import sys

from quillstone.agent_onboarding import onboard
from quillstone.simulate_signal import simulate_signal


def main(prices: str, home: str) -> None:
    """Simulate one signal, a smoothed reversal of the last five days, and print its result."""
    onboard(prices, home)
    graph = {
        "type": "rotation",
        "name": "linear_decay",
        "params": {"window": 10},
        "children": [
            {
                "type": "rotation",
                "name": "rank",
                "children": [{"type": "feature", "name": "reversal_5d"}],
            }
        ],
    }
    handle = simulate_signal(graph, signal_pool_id="alpha")
    print(handle.status().message)
    result = handle.result()  # waits, and records the evaluation in the database
    print(result)
    print(f"Sharpe after costs: {result.per_column_stats['pnl_net_sharpe']:.2f}")


if __name__ == "__main__":
    main(*sys.argv[1:3])

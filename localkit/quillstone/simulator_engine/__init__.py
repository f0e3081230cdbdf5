"""Validation, evaluation and backtest of expression graphs on one machine."""

"""The synced vocabulary as it lies on disk. A local era uses clear names, so it is plain JSON."""

from __future__ import annotations

import json
import os
from pathlib import Path
from typing import Any

__all__ = ["check_vocabulary", "load_vocabulary", "vocabulary_path"]

REQUIRED_KEYS = ("era_id", "rotations", "filtrations", "reductions", "features", "metadata")


def vocabulary_path(data_dir: str | os.PathLike[str]) -> Path:
    """Return the vocabulary file of a data directory.

    Raises:
        FileNotFoundError: The directory has no universe with a vocabulary.
    """
    found = sorted(Path(data_dir).glob("*/vocabulary.json"))
    if not found:
        raise FileNotFoundError(f"no vocabulary.json in {os.fspath(data_dir)}; run a data sync")
    return found[0]


def load_vocabulary(data_dir: str | os.PathLike[str]) -> dict[str, Any]:
    """Read and check the vocabulary of a synced data directory.

    Raises:
        FileNotFoundError: There is none.
        ValueError: It is no JSON, or not a vocabulary.
    """
    return check_vocabulary(json.loads(vocabulary_path(data_dir).read_text("utf-8")))


def check_vocabulary(value: Any) -> dict[str, Any]:
    """Return `value` if it has the shape of a vocabulary.

    Raises:
        ValueError: It is no mapping, lacks a key, or has a record without name or class.
    """
    if not isinstance(value, dict):
        raise ValueError(f"a vocabulary must be a mapping, not {type(value).__name__}")
    if missing := [key for key in REQUIRED_KEYS if key not in value]:
        raise ValueError(f"the vocabulary lacks {', '.join(missing)}")
    if not isinstance(value["features"], dict):
        raise ValueError("the vocabulary's features must be a mapping")
    for section in ("rotations", "filtrations", "reductions"):
        if not isinstance(value[section], dict):
            raise ValueError(f"the vocabulary's {section} must be a mapping of families")
        for family, subfamilies in value[section].items():
            _check_family(f"{section}/{family}", subfamilies)
    return value


def _check_family(where: str, subfamilies: Any) -> None:
    groups = subfamilies.values() if isinstance(subfamilies, dict) else [None]
    for records in groups:
        if not isinstance(records, list):
            raise ValueError(f"{where}: subfamilies must map to lists of records")
        for record in records:
            named = isinstance(record, dict) and all(
                isinstance(record.get(key), str) and record[key]
                for key in ("name", "module_path", "class_name")
            )
            if not named:
                raise ValueError(f"{where}: a record needs name, module_path and class_name")

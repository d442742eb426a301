"""The names of the library's numeric choices, read from names.tsv.

The command-line tool compiles the same table in, so a name means the same
code in both.  Names and aliases match without regard to case; a choice may
also be given as its numeric code when the table lists that code.
"""

from __future__ import annotations

import os
from typing import Dict, List, Tuple, Union

TABLE_PATH = os.path.join(os.path.dirname(os.path.abspath(__file__)), "names.tsv")

#: group -> [(name, value, (aliases...))] in table order.
GROUPS: Dict[str, List[Tuple[str, int, Tuple[str, ...]]]] = {}


def _load() -> None:
    with open(TABLE_PATH, encoding="utf-8") as table:
        for number, line in enumerate(table, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            cells = line.split("\t")
            if len(cells) != 4:
                raise ImportError(f"{TABLE_PATH}:{number}: expected 4 tab-separated "
                                  f"columns, got {len(cells)}")
            group, name, value, aliases = cells
            alias_list = () if aliases == "-" else tuple(a for a in aliases.split(",") if a)
            GROUPS.setdefault(group, []).append((name, int(value, 0), alias_list))


_load()


def choices(group: str) -> str:
    """The accepted names of a group as text for an error message."""
    names = []
    for name, _, aliases in GROUPS[group]:
        others = [repr(a) for a in aliases if a.lower() != name.lower()]
        names.append(repr(name) + (f" (or {', '.join(others)})" if others else ""))
    return ", ".join(names)


def code(group: str, value: Union[str, int], what: str) -> int:
    """The numeric code of `value` (a name, an alias or a listed code)."""
    rows = GROUPS[group]
    if isinstance(value, str):
        wanted = value.lower()
        for name, number, aliases in rows:
            if wanted == name.lower() or any(wanted == a.lower() for a in aliases):
                return number
    elif not isinstance(value, bool):
        try:
            number = int(value)  # type: ignore[arg-type]
        except (TypeError, ValueError):
            number = None
        if number is not None and number == value:
            for _, listed, _ in rows:
                if number == listed:
                    return number
    raise ValueError(f"unknown {what} {value!r}; choose one of {choices(group)}")


def name_of(group: str, number: int) -> str:
    """The table's name of a code (the code as text if it has none)."""
    for name, listed, _ in GROUPS[group]:
        if listed == number:
            return name
    return str(number)

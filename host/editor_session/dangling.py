"""Symbols a write removed that other files still call: the breakage no syntax check of the
written file can see, shown with the callers so the model can fix or undo it."""

SHOWN_CALLERS = 10


def _file(symbol_id: str) -> str:
    return symbol_id.partition("::")[0]


def _name(symbol_id: str) -> str:
    return symbol_id.rpartition("::")[2].rpartition(".")[2]


def _ids(enriched: dict) -> set[str]:
    return set(enriched.get("symbols", {})) | set(enriched.get("defs", {}))


def dangling(before: dict, after: dict) -> list[dict]:
    """From the enriched maps of a write's changes: each removed symbol or call target whose
    callers in other files still exist and whose call did not find a new target of that name."""
    gone = _ids(before) - _ids(after)
    resolved_again = {(edge["caller"], _name(edge["callee"])) for edge in after.get("edges", [])}
    callers: dict[str, set[str]] = {}
    for edge in before.get("edges", []):
        caller, callee = edge["caller"], edge["callee"]
        if (callee in gone and caller not in gone and _file(caller) != _file(callee)
                and (caller, _name(callee)) not in resolved_again):
            callers.setdefault(callee, set()).add(caller)
    return [{"symbol": symbol, "callers": sorted(found)[:SHOWN_CALLERS], "caller_count": len(found)}
            for symbol, found in sorted(callers.items())]

"""A minimal code indexer: the stand-in for the host's `srcatlas`.

`build` and `update` make the raw IR (one record per file, see `records`); `enrich` turns a raw
IR into the enriched map the static diff reads, and `Atlas` keeps that map up to date as the raw
IR moves, re-doing only the files a change can reach.
"""

from .atlas import Atlas, callable_names, enrich
from .records import SCHEMA, _index_file, build, update

__all__ = ["SCHEMA", "Atlas", "build", "callable_names", "enrich", "update", "_index_file"]

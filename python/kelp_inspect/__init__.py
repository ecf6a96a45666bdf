"""Reads and drives the objects of a running kelp-agent by name.

The agent listens where `kelp-agent --inspect PATH` says. Needs Python 3.11 and nothing else:

    from kelp_inspect import Agent

    with Agent("/run/kelp/inspect") as agent:
        for table in agent.tables():
            print(table.name, table.unit, table.entries)
        for entry in agent.entries("Isem1Tag", 0):
            print(entry["key"], entry["resources"])
"""

from kelp_inspect.agent import Agent, Table
from kelp_inspect.client import Client, Code, InspectError
from kelp_inspect.objects import Collection, Operation, Ref, hashable
from kelp_inspect.watching import Change, Watch

__all__ = ["Agent", "Change", "Client", "Code", "Collection", "InspectError", "Operation", "Ref",
           "Table", "Watch", "hashable"]

#!/usr/bin/env python3
# %% [markdown]
# # How full the change logs are
#
# Looks at a running agent until it ends, and plots over time how many changes of each table the
# hardware side has not taken in yet, and how many operations have not come as far as a log. Beside
# a demo run:
#
#     ./dev demo --inspect kelp.sock &
#     PYTHONPATH=python examples/log_fill.py kelp.sock log_fill.png
#
# The picture needs matplotlib (Debian: python3-matplotlib); the summary needs nothing.

# %%
import sys
import time

from kelp_inspect import Agent, InspectError

# In a notebook the command line is not this program's.
arguments = [] if "ipykernel" in sys.modules else sys.argv[1:]
if len(arguments) > 2 or any(one.startswith("-") for one in arguments):
    raise SystemExit("usage: log_fill.py [SOCKET [PNG]]")
SOCKET = arguments[0] if arguments else "kelp.sock"
PNG = arguments[1] if len(arguments) > 1 else "log_fill.png"
PERIOD = 0.01  # seconds between two looks
# How long to wait for an agent: before the first, and for another after one that has gone.
PATIENCE, GONE_FOR = 30.0, 3.0


# %% [markdown]
# One look is one batch of requests. The versions of a log and of its cleaning belong to a table;
# the operations that wait to be committed belong to a table on a unit.

# %%
def requests_of(agent):
    """What to ask in each look: (table, what, request)."""
    for table in agent.tables():
        path = table.ref.path
        if table.unit == 0:
            for what in ("tableVersion", "lastCleanedVersion"):
                yield table.name, what, ("read", {"path": f"{path}/entryLog/{what}"})
        for what in ("transientAddEntry", "transientRemoveEntry"):
            yield table.name, what, ("count", {"path": f"{path}/{what}"})


def look(agent, asked):
    """The records in the log and the operations that wait, of each table."""
    answers = agent.batch([request for _, _, request in asked])
    fill, waiting = {}, {}
    for (table, what, _), answer in zip(asked, answers):
        if isinstance(answer, InspectError):
            raise answer
        if what == "tableVersion":
            fill[table] = fill.get(table, 0) + answer
        elif what == "lastCleanedVersion":
            fill[table] = fill.get(table, 0) - answer
        else:
            waiting[table] = waiting.get(table, 0) + answer
    return fill, waiting


# %% [markdown]
# An agent may be killed and started again on the way. It has ended when no other one comes.

# %%
def connected(patience):
    """The agent, when one listens; None if none does for so many seconds."""
    deadline = time.monotonic() + patience
    while time.monotonic() < deadline:
        try:
            return Agent(SOCKET)
        except OSError:
            time.sleep(PERIOD)
    return None


runs = []  # of each agent: (time, fill by table, waiting by table) of each look at it
while agent := connected(GONE_FOR if runs else PATIENCE):
    runs.append([])
    try:
        with agent:
            asked = list(requests_of(agent))
            while True:
                runs[-1].append((time.monotonic(), *look(agent, asked)))
                time.sleep(PERIOD)
    except OSError:
        pass  # it has gone
runs = [run for run in runs if run]
if not runs:
    raise SystemExit(f"{SOCKET}: no agent listens: start one with --inspect {SOCKET}")

# %%
began = runs[0][0][0]
runs = [[(at - began, *counts) for at, *counts in run] for run in runs]
samples = [sample for run in runs for sample in run]
tables = sorted(samples[0][1])
print(f"{len(samples)} looks in {samples[-1][0]:.1f} s; agents, one after the other: {len(runs)}")
print(f"{'table':<14}{'most in its log':>16}{'most waiting':>14}")
for table in tables:
    most = [max(sample[which][table] for sample in samples) for which in (1, 2)]
    print(f"{table:<14}{most[0]:>16}{most[1]:>14}")

# %%
try:
    import matplotlib
except ImportError:
    print("no picture: there is no matplotlib (Debian: python3-matplotlib)")
    raise SystemExit(0) from None

if "ipykernel" not in sys.modules:
    matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402 (needs the line above)

plt.rcParams.update({"font.size": 10, "axes.spines.top": False, "axes.spines.right": False,
                     "axes.grid": True, "grid.alpha": 0.25, "axes.axisbelow": True,
                     "hatch.linewidth": 0.6})
colours = [plt.get_cmap("tab10")(number) for number in (0, 1, 2, 3, 4, 5, 6, 8, 9)]
figure, (upper, lower) = plt.subplots(2, 1, sharex=True, figsize=(10, 6.5),
                                      gridspec_kw={"height_ratios": [3, 2]})
for axes, which, title in (
        (upper, 1, "Changes in the logs that the hardware side has not taken in"),
        (lower, 2, "Operations that wait to be committed")):
    for run in runs:
        times = [sample[0] for sample in run]
        axes.stackplot(times, [[sample[which][table] for sample in run] for table in tables],
                       labels=tables if run is runs[0] else (), colors=colours, linewidth=0,
                       step="post")
    for before, after in zip(runs, runs[1:]):
        axes.axvspan(before[-1][0], after[0][0], color="0.9", hatch="////", ec="0.75", lw=0,
                     label="no agent" if before is runs[0] else None)
    axes.set_title(title, loc="left", fontsize=11)
    axes.set_ylabel("changes" if axes is upper else "operations")
    axes.set_xlim(0, samples[-1][0])
    axes.set_ylim(bottom=0)
    axes.yaxis.set_major_formatter(lambda value, _: f"{value:,.0f}")
lower.set_xlabel("seconds since the first look")
upper.legend(*(some[::-1] for some in upper.get_legend_handles_labels()), loc="upper left",
             bbox_to_anchor=(1.01, 1), frameon=False)
figure.tight_layout()
figure.savefig(PNG, dpi=120)
print(f"plotted to {PNG}")

"""What the machine is, and how much of its processor time others took."""

import os
import platform

STOLEN = 7          # column of /proc/stat
COUNTED = slice(8)  # the columns behind are contained in these


def describe():
    """One line: figures are comparable within one machine only."""
    with open("/proc/cpuinfo", encoding="utf-8") as file:
        model = next((line.split(":")[1].strip() for line in file if line.startswith("model name")), "?")
    with open("/proc/sys/net/core/rmem_max", encoding="ascii") as file:
        limit = file.read().strip()
    load = " ".join(f"{value:.2f}" for value in os.getloadavg())
    return (f"machine: {len(os.sched_getaffinity(0))} cores, {model}, Linux {platform.release()}, "
            f"load {load}, net.core.rmem_max {limit}")


class StolenTime:
    """Processor time that the hypervisor gave to others since this was made."""

    def __init__(self):
        self._start = self._read()

    def percent(self):
        spent = [now - then for now, then in zip(self._read(), self._start)]
        return 100 * spent[STOLEN] / max(sum(spent), 1)

    @staticmethod
    def _read():
        with open("/proc/stat", encoding="ascii") as file:
            return [int(word) for word in file.readline().split()[1:]][COUNTED]

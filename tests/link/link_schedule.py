"""Random schedules of what may break, under load: each seed is another one, and the same one
every time. Services are on two machines, load is on all three.

Usage: link_schedule.py FOLDER_OF_THE_PROGRAMS [--loopback] SEED...

Prints a line for each seed, and what is wrong. Exit status 1 where anything is.
"""

import argparse
import random
import signal
import sys
import time

import loopback
import traffic
from conditions import Way
from fleet import Fleet, best_network, eventually

FAULTS = 4
LONGEST = 2.5  # of a fault
ALL_WITHIN = 3.0


class Fault:
    """Something that breaks, and is mended later."""

    def __init__(self, source, fleet):
        self.machine = source.choice(list(fleet))
        self.begin = source.uniform(0, ALL_WITHIN)
        self.end = self.begin + source.uniform(0.05, LONGEST)
        self.title, self.strike, self.mend = source.choice([
            ("server killed", self.kill("server"), self.machine.start_server),
            ("server stopped", self.send(signal.SIGSTOP), self.send(signal.SIGCONT)),
            ("broker killed", self.kill("broker"), self.machine.start_broker),
            ("cut off", self.cut(), self.restore),
            ("silent", self.cut(incoming=False), self.restore),
            ("deaf", self.cut(outgoing=False), self.restore),
            ("slow and lossy", lambda: self.machine.fleet.network.ways.change(
                Way(delay=0.05, loss=0.05), sender=self.machine.name), self.restore),
        ])

    def kill(self, part):
        return lambda: self.machine.end(part, signal.SIGKILL)

    def send(self, number):
        return lambda: self.machine.server.send(number)

    def cut(self, **direction):
        return lambda: self.machine.fleet.cut_off(self.machine.name, **direction)

    def restore(self):
        self.machine.fleet.restore(self.machine.name)

    @property
    def touches(self):
        """What it is that breaks; of two faults of the same thing the second is left out."""
        kind = "way" if self.mend == self.restore else self.title.split()[0]
        return self.machine.name, kind

    def __str__(self):
        return f"{self.machine.name} {self.title} {self.begin:.1f}–{self.end:.1f} s"


def faults_of(seed, fleet):
    source = random.Random(seed)
    faults = {}
    for fault in (Fault(source, fleet) for _ in range(FAULTS)):
        faults.setdefault(fault.touches, fault)
    return list(faults.values())


def play(faults):
    steps = [(fault.begin, fault.strike) for fault in faults]
    steps += [(fault.end, fault.mend) for fault in faults]
    begin = time.monotonic()
    for when, step in sorted(steps, key=lambda each: each[0]):
        time.sleep(max(0.0, begin + when - time.monotonic()))
        step()


def wrong_after(loads, listeners, machines, services):
    for load in loads:
        load.wait_for()
    for load in loads:
        load.finish()
    wrong = traffic.wrong_with(loads, machines)
    wrong += traffic.wrong_with_responders(loads, services)
    wrong += traffic.wrong_with_counters(services)
    for listener in listeners:
        listener.finish()
        wrong += traffic.wrong_with_events(listener, services)
    return wrong


def run(seed, programs, network):
    """What is wrong, as sentences, after a line that tells what was done."""
    fleet = Fleet(programs, network, seed=seed)
    try:
        for machine in fleet:
            machine.start_broker()
        services = list(fleet)[1:]
        for machine in services:
            machine.start_test_service()
        for machine in fleet:
            eventually(machine.answers, f"an answer for {machine.name}")
        listeners = [traffic.Listener(machine) for machine in fleet]
        loads = [traffic.Load(machine, number, in_flight=8)
                 for machine in fleet for number in range(2)]
        faults = faults_of(seed, fleet)
        play(faults)
        fleet.wait_for_cluster()
        try:
            wrong = wrong_after(loads, listeners, fleet, services)
        except AssertionError as failure:
            wrong = [str(failure)]
        outcomes = sum((load.outcomes() for load in loads), traffic.NO_OUTCOMES)
        print(f"seed {seed}: {'wrong' if wrong else 'right'}; "
              f"{', '.join(map(str, faults))}; {traffic.shown(outcomes)}", flush=True)
        for sentence in wrong[:10]:
            print(f"    {sentence}", flush=True)
        return wrong
    finally:
        fleet.close()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("programs")
    parser.add_argument("--loopback", action="store_true")
    parser.add_argument("seeds", type=int, nargs="+", metavar="SEED")
    given = parser.parse_args()
    network = loopback.Network if given.loopback else best_network()
    return 1 if [seed for seed in given.seeds if run(seed, given.programs, network)] else 0


if __name__ == "__main__":
    sys.exit(main())

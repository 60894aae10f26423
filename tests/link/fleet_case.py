"""What the tests over several machines share: a fleet for each, its traffic, and the judgement
of that. The arguments of each test program:

    FOLDER_OF_THE_PROGRAMS [--loopback] [TEST...]
"""

import pathlib
import sys
import unittest

import loopback
import traffic
from fleet import PATIENCE, Fleet, best_network, eventually

ARGUMENTS = sys.argv[1:]


class FleetTest(unittest.TestCase):
    network = None
    programs = None

    def start(self, brokers=True, **options):
        """A fleet of three machines, by default with a broker each."""
        self.fleet = Fleet(self.programs, self.network, **options)
        self.addCleanup(self.fleet.close)
        self.addCleanup(self.show_logs)
        self.alpha, self.beta, self.gamma = self.fleet
        self.loads, self.listeners = [], []
        if brokers:
            for machine in self.fleet:
                machine.start_broker()
        return self.fleet

    def start_traffic(self):
        """The test service on beta, and load and listeners on the other machines."""
        self.beta.start_test_service()
        for machine in (self.alpha, self.gamma):
            self.wait_for_answer(machine)
            self.listeners.append(traffic.Listener(machine))
            self.loads.append(traffic.Load(machine))
        for load in self.loads:
            load.wait_for()

    def wait_for_answer(self, machine):
        eventually(machine.answers, f"an answer for {machine.name}")

    def wait_for_answers(self):
        for load in self.loads:
            load.wait_for()

    def finish_traffic(self, services=None):
        """Ends it; what the load, the listeners and the services tell must agree."""
        services = services or [self.beta]
        for program in self.loads:
            program.finish()
        wrong = traffic.wrong_with(self.loads, self.fleet)
        for listener in self.listeners:
            listener.finish()
            wrong += traffic.wrong_with_events(listener, services)
        self.assertEqual([], wrong[:20])
        self.assertEqual([], traffic.wrong_with_counters(services))

    def show_logs(self):
        reported = self._outcome.result
        if any(test is self for test, _ in reported.failures + reported.errors):
            for log in sorted(self.fleet.folder.glob("*/broker.log")):
                print(f"--- {log.parent.name}:\n{log.read_text()[-3000:]}", file=sys.stderr)


def main():
    FleetTest.programs = pathlib.Path(ARGUMENTS[0])
    on_loopback = "--loopback" in ARGUMENTS
    FleetTest.network = loopback.Network if on_loopback else best_network()
    tests = [each for each in ARGUMENTS[1:] if each != "--loopback"]
    unittest.main(module="__main__", argv=[sys.argv[0], *tests])

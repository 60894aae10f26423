"""Requests and events from machine to machine while nothing breaks."""

import json
import time

import traffic
from fleet import eventually
from fleet_case import FleetTest, main

CHECKS = 294
AT_ONCE = 1.0  # with the start of the program that asks


class LinkTest(FleetTest):
    def test_the_module_passes_with_the_service_on_another_machine(self):
        self.start()
        self.beta.start_test_service()
        self.wait_for_answer(self.alpha)
        report = self.fleet.folder / "report.json"
        run = self.alpha.kavri("conformance", "--service-record", self.beta.record, "--json",
                               report)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
        content = json.loads(report.read_text())
        self.assertEqual(content["verdict"], "pass", run.stdout)
        self.assertIn(f"{CHECKS} checks, {CHECKS} passed", run.stdout)

    def test_a_category_that_nobody_serves_is_told_at_once(self):
        self.start()
        self.alpha.linked_to()
        begin = time.monotonic()
        asked = self.alpha.request("test", "echo")
        self.assertEqual(asked.returncode, 3, asked.stderr)
        self.assertLess(time.monotonic() - begin, AT_ONCE)

    def test_what_is_not_imported_is_not_asked_for(self):
        self.start()
        serving = self.fleet.start("beta", [self.programs / "kavri", "serve", "other", "--socket",
                                            self.beta.socket], self.beta.folder / "serve.log",
                                   "ready")
        self.assertEqual(self.alpha.request("other", "echo").returncode, 3)
        self.assertEqual(self.beta.request("other", "echo", "x").stdout.strip(), "x")
        serving.end()

    def test_more_than_the_server_takes_is_too_large(self):
        self.start(server_settings="max_payload: 65536\n")
        self.beta.start_test_service()
        self.wait_for_answer(self.alpha)
        begin = time.monotonic()
        asked = self.alpha.kavri("request", "test", "echo", "-", input="x" * 100_000)
        self.assertEqual(asked.returncode, 3, asked.stderr)
        self.assertRegex(asked.stderr, "(?i)too.large|longer|larger")
        self.assertLess(time.monotonic() - begin, AT_ONCE)
        self.assertTrue(self.alpha.answers())
        self.assertEqual(self.beta.kavri("request", "test", "echo", "-",
                                         input="x" * 100_000).returncode, 0)

    def test_a_responder_of_this_machine_goes_first(self):
        self.start()
        self.beta.start_test_service()
        self.wait_for_answer(self.alpha)
        self.alpha.start_test_service()
        local = traffic.Load(self.alpha)
        local.wait_for()
        local.finish()
        self.assertEqual(traffic.wrong_with([local], self.fleet), [])
        answered = {each.uuid for each in local.requests()}
        self.assertLessEqual(answered, {each["request"]["uuid"]
                                        for each in traffic.recorded(self.alpha)})

    def test_initiators_are_spread_and_each_stays_with_one_responder(self):
        self.start()
        for machine in (self.beta, self.gamma):
            machine.start_test_service()
        self.wait_for_answer(self.alpha)
        self.loads = [traffic.Load(self.alpha, number, in_flight=2) for number in range(12)]
        self.wait_for_answers()
        self.finish_traffic(services=[self.beta, self.gamma])
        names = [{each["request"]["uuid"].rpartition("-")[0] for each in traffic.recorded(machine)}
                 & {load.name for load in self.loads} for machine in (self.beta, self.gamma)]
        self.assertTrue(names[0] and names[1], names)
        self.assertEqual(names[0] & names[1], set())

    def test_events_reach_each_subscriber_once_and_in_order(self):
        self.start()
        self.start_traffic()
        self.listeners += [traffic.Listener(self.alpha, number) for number in range(1, 4)]
        self.wait_for_answers()
        for load in self.loads:
            load.finish()
        published = [each["request"]["uuid"] for each in traffic.recorded(self.beta)
                     if each["event"] is not None]
        for listener in self.listeners:
            eventually(lambda: listener.events()[-1:] == published[-1:], "the last event")
        self.assertEqual(self.listeners[0].events(), published)
        self.finish_traffic()
        for listener in self.listeners:
            self.assertEqual([event for event, _, _ in listener.changes()], ["0"])


if __name__ == "__main__":
    main()

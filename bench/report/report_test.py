"""The page, the tables and the targets, made from results that were made up."""

import unittest

from report import page, plan, tables
from report.results import Results
from report.targets import outcomes

LATENCIES = {"meanUs": 21.0, "p50Us": 20.0, "p90Us": 25.0, "p99Us": 40.0, "p999Us": 90.0,
             "maxUs": 400.0, "distribution": [[0.0, 15.0], [50.0, 20.0], [99.9, 90.0]]}


def made_up(transport, factor):
    """The figures of every workload at once; the smaller the factor, the better."""
    figures = {name: value * factor for name, value in LATENCIES.items() if name != "distribution"}
    figures["distribution"] = [[percent, us * factor]
                               for percent, us in LATENCIES["distribution"]]
    quiet = {who: {"processorUsPerSecond": 0.0} for who in ("server", "service", "clients")}
    return {**figures, "messagesPerSecond": 1e5 / factor, "bytesPerSecond": 3.2e6 / factor,
            "deliveriesPerSecond": 1e6 / factor, "medianOverSlowest": 1.1, "p99Ratio": 2.0,
            "serverBytesPerClient": 500.0 * factor, "serverBytes": 2e6 * factor, "processor": quiet, "alone": figures,
            "flooded": figures, "seconds": 2.1, "transport": transport}


def results(rounds=3, kavri=0.1):
    measurements = {}
    for case in plan.CASES:
        measurements[case.name] = {
            name: [made_up(name, kavri if name.startswith("kavri") else 1.0)] * rounds
            for name in case.transports}
    return Results({"date": "2025-01-01", "measurements": measurements,
                    "settings": {"rounds": rounds, "seconds": 1},
                    "machine": {"processor": "x", "processors": 2, "kernel": "6", "system": "s",
                                "packages": {"p": "1"}}})


class Report(unittest.TestCase):
    def test_everything_planned_is_judged(self):
        self.assertTrue(all(each.value is not None for each in outcomes(results())))

    def test_a_ratio_that_is_too_large_is_not_reached(self):
        first = outcomes(results(kavri=0.5))[0]
        self.assertAlmostEqual(first.value, 0.5)
        self.assertFalse(first.is_reached)
        self.assertTrue(outcomes(results(kavri=0.3))[0].is_reached)

    def test_a_local_round_trip_is_taken_off_one_across_the_link(self):
        def judged(across):
            some = results()
            trips = some.content["measurements"]["link-round-trip"]
            for name, factor in (("kavri", 1), ("kavri-link", across), ("nats-joined", 4)):
                trips[name] = [made_up(name, factor)] * 3
            outcome = next(each for each in outcomes(some) if each.target.less)
            return outcome.value, outcome.is_reached

        self.assertEqual(judged(6), (1.25, True))
        self.assertEqual(judged(7), (1.5, False))

    def test_a_failed_round_is_left_out_and_told(self):
        some = results()
        some.content["measurements"]["round-trip"]["kavri"] = [
            {"error": "<gone>"}, made_up("kavri", 0.3), made_up("kavri", 0.3)]
        self.assertAlmostEqual(outcomes(some)[0].value, 0.3)
        self.assertEqual(list(some.errors()), [("round-trip", "kavri", 1, "<gone>")])
        self.assertIn("&lt;gone&gt;", page.page(some))

    def judged_callbacks(self, **factors):
        """(value, reached) of the targets by callback, with kavri's figures of some cases made
        worse by a factor."""
        some = results()
        for case, factor in factors.items():
            some.content["measurements"][case.replace("_", "-")]["kavri"] = \
                [made_up("kavri", 0.1 * factor)] * 3
        judged = [each for each in outcomes(some) if each.target.ours[0].startswith("callback")]
        self.assertEqual({each.beside for each in judged}, {"itself"})
        return [(round(each.value, 3), each.is_reached) for each in judged]

    def test_a_callback_is_judged_beside_a_receive(self):
        self.assertEqual(self.judged_callbacks(), [(1, True)] * 3)
        self.assertEqual(self.judged_callbacks(callback=1.01, callback_one_processor=1.19,
                                               callback_in_flight=1.24),
                         [(1.01, False), (1.19, True), (0.806, True)])
        self.assertEqual(self.judged_callbacks(callback=0.99, callback_one_processor=1.21,
                                               callback_in_flight=1.26),
                         [(0.99, True), (1.21, False), (0.794, False)])
        self.assertEqual(self.judged_callbacks(round_trip=2, round_trip_one_processor=0.5,
                                               in_flight_32=0.5),
                         [(0.5, True), (2, False), (0.5, False)])

    def test_two_cases_are_compared_within_a_round(self):
        some = results()
        some.content["measurements"]["round-trip"]["kavri"] = [
            made_up("kavri", factor) for factor in (1, 2, 4)]
        some.content["measurements"]["callback"]["kavri"] = [
            made_up("kavri", factor) for factor in (3, 1, 4)]
        outcome = next(each for each in outcomes(some) if each.target.ours[0] == "callback")
        self.assertEqual((outcome.value, outcome.spread), (1, (0.5, 3)))

    def test_callbacks_have_tables_and_charts(self):
        some = results()
        some.content["measurements"] = {case.name: some.content["measurements"][case.name]
                                        for case in plan.CASES if case.group == "callback"}
        text = tables.markdown(some)
        self.assertIn("### Send to callback, everything on one core", text)
        self.assertIn("| kavri, service embedded | 1.00 M/s | 1.00 M/s |", text)
        self.assertEqual(page.page(some).count("<svg"), 4)

    def test_the_page_needs_nothing_from_elsewhere(self):
        text = page.page(results())
        self.assertNotIn("http", text)
        self.assertGreaterEqual(text.count("<svg"), 18)

    def test_what_was_not_measured_is_left_out(self):
        some = results()
        some.content["measurements"] = {"connect": some.content["measurements"]["connect"]}
        self.assertIn("not measured", page.page(some))
        self.assertNotIn("### Events", tables.markdown(some))


if __name__ == "__main__":
    unittest.main()

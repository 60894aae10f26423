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
            "serverBytesPerClient": 500.0 * factor, "processor": quiet, "alone": figures,
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

    def test_a_failed_round_is_left_out_and_told(self):
        some = results()
        some.content["measurements"]["round-trip"]["kavri"] = [
            {"error": "<gone>"}, made_up("kavri", 0.3), made_up("kavri", 0.3)]
        self.assertAlmostEqual(outcomes(some)[0].value, 0.3)
        self.assertEqual(list(some.errors()), [("round-trip", "kavri", 1, "<gone>")])
        self.assertIn("&lt;gone&gt;", page.page(some))

    def test_the_page_needs_nothing_from_elsewhere(self):
        text = page.page(results())
        self.assertNotIn("http", text)
        self.assertGreaterEqual(text.count("<svg"), 14)

    def test_what_was_not_measured_is_left_out(self):
        some = results()
        some.content["measurements"] = {"connect": some.content["measurements"]["connect"]}
        self.assertIn("not measured", page.page(some))
        self.assertNotIn("### Events", tables.markdown(some))


if __name__ == "__main__":
    unittest.main()

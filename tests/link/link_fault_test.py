"""What callers see when servers, brokers and the ways between machines fail under load: one
outcome for each request, within the time that is promised, and service again afterwards."""

import signal
import time

import traffic
from conditions import Way
from fleet import eventually
from fleet_case import FleetTest, main

PARTITION = 5.0


class ServerTest(FleetTest):
    def test_each_server_killed_in_turn(self):
        self.start()
        self.start_traffic()
        for machine in self.fleet:
            machine.end("server", signal.SIGKILL)
            self.wait_for_answers()
            machine.start_server()
            self.fleet.wait_for_cluster()
            self.wait_for_answers()
        self.finish_traffic()

    def test_a_server_that_stops_for_a_while(self):
        self.start()
        self.start_traffic()
        stopped = self.beta.linked_to().server
        stopped.send(signal.SIGSTOP)
        for load in self.loads:
            eventually(lambda: load.outcomes().keys() & traffic.UNKNOWN.keys(), "a loss")
        stopped.send(signal.SIGCONT)
        self.wait_for_answers()
        self.finish_traffic()

    def test_a_link_that_comes_back_is_told_to_subscribers_with_the_reason(self):
        self.start()
        self.start_traffic()
        for machine in self.fleet:
            machine.end("server", signal.SIGKILL)
        for load in self.loads:
            load.wait_for("10", further=1)
        for machine in self.fleet:
            machine.start_server()
        self.wait_for_answers()
        for listener in self.listeners:
            eventually(lambda: any(event == traffic.RESTORED
                                   for event, _, _ in listener.changes()), "a connection again")
            closed = [change for change in listener.changes() if change[0] == traffic.CLOSED]
            self.assertTrue(closed, listener.changes())
            self.assertRegex(closed[0][2], "link")
            before = len(listener.events())
            eventually(lambda: len(listener.events()) > before, "events again")
        self.finish_traffic()


class WayTest(FleetTest):
    def wait_for_loss(self):
        for load in self.loads:
            eventually(lambda: load.outcomes().keys() & traffic.UNKNOWN.keys(), "a loss")

    def test_a_partition_of_five_seconds(self):
        self.start()
        self.start_traffic()
        begin = time.monotonic()
        self.fleet.network.set_link("beta", False)
        self.wait_for_loss()
        for load in self.loads:
            load.wait_for("10", further=1)
        time.sleep(max(0.0, begin + PARTITION - time.monotonic()))
        self.fleet.network.set_link("beta", True)
        self.wait_for_answers()
        self.finish_traffic()

    def test_what_one_machine_sends_is_lost(self):
        self.lose_one_direction(incoming=False)

    def test_what_is_sent_to_one_machine_is_lost(self):
        self.lose_one_direction(outgoing=False)

    def lose_one_direction(self, **direction):
        self.start()
        self.start_traffic()
        self.fleet.cut_off("beta", **direction)
        self.wait_for_loss()
        self.fleet.restore("beta")
        self.wait_for_answers()
        self.finish_traffic()

    def test_delay_and_loss(self):
        self.start()
        self.start_traffic()
        self.fleet.change_all(Way(delay=0.05, loss=0.05))
        for load in self.loads:
            load.wait_for(further=200)
        self.fleet.change_all(Way())
        self.wait_for_answers()
        self.finish_traffic()


class BrokerTest(FleetTest):
    def test_the_broker_of_the_responder_is_killed(self):
        self.start()
        self.start_traffic()
        self.beta.end("broker", signal.SIGKILL)
        for load in self.loads:
            load.wait_for("10", further=10)
        self.beta.start_broker()
        self.wait_for_answers()
        self.finish_traffic()

    def test_the_broker_of_an_initiator_is_killed(self):
        self.start()
        self.start_traffic()
        self.gamma.end("broker", signal.SIGKILL)
        self.loads[0].wait_for()
        self.gamma.start_broker()
        self.wait_for_answers()
        self.assertLessEqual(self.loads[0].outcomes().keys(), {traffic.ANSWERED})
        self.finish_traffic()

    def test_a_responder_moves_to_another_machine(self):
        self.start()
        service = self.beta.start_test_service()
        self.wait_for_answer(self.alpha)
        self.loads = [traffic.Load(self.alpha)]
        self.wait_for_answers()
        service.end()
        self.loads[0].wait_for("10", further=10)
        self.gamma.start_test_service()
        self.wait_for_answers()
        self.finish_traffic(services=[self.gamma])


if __name__ == "__main__":
    main()

"""Other clients of the message servers: what an attacker publishes crashes no broker and changes
nothing for others, and a broker without rights on the server says so and goes on."""

import random
import time

import traffic
from fleet import eventually
from fleet_case import FleetTest, main
from nats_client import Client

ROUNDS = 20
PASSWORD = "secret"
SERVER_WITH_USERS = f"""authorization {{ users: [
    {{ user: all, password: {PASSWORD} }},
    {{ user: mute, password: {PASSWORD}, permissions: {{ publish: {{ deny: ">" }} }} }},
    {{ user: stranger, password: {PASSWORD}, permissions: {{
        publish: {{ deny: "kavri.>" }}, subscribe: {{ deny: "kavri.>" }} }} }} ] }}
"""


def spoiled(data, source):
    """Variations of a message."""
    yield b""
    yield source.randbytes(source.randrange(1, 200))
    yield data[: source.randrange(len(data) + 1)]
    yield data
    yield data + source.randbytes(8)
    if data:
        for _ in range(4):
            changed = bytearray(data)
            changed[source.randrange(len(changed))] = source.randrange(256)
            yield bytes(changed)


class HostileBusTest(FleetTest):
    def setUp(self):
        self.ended = []

    def start_with(self, **users):
        """users: of each machine's broker, by the machine's name."""
        self.start(brokers=False, server_settings=SERVER_WITH_USERS)
        password = self.fleet.folder / "password"
        password.write_text(PASSWORD + "\n")
        password.chmod(0o600)
        for name, user in users.items():
            self.fleet[name].start_broker(link=f'user = "{user}"\npassword_file = "{password}"')

    def attacker(self, machine, **options):
        client = Client(self.fleet.network.connect(machine.name), **options)
        self.addCleanup(client.close)
        return client

    def seen_traffic(self, **options):
        """Everything that brokers say to each other for one initiator and some events; that
        initiator's load ends with it."""
        watching = self.attacker(self.alpha, **options)
        watching.subscribe(b">")
        victim = traffic.Load(self.gamma, 9)
        victim.wait_for()
        victim.finish()
        self.ended.append(victim)
        seen = {}
        for message in watching.flush():
            if not message[0].startswith((b"$", b"_INBOX")):
                seen.setdefault(message[0], []).append(message)
        self.assertTrue(seen)
        return [message for messages in seen.values()
                for message in messages[:5] + messages[-5:]]

    def attack(self, messages, **options):
        attacking = self.attacker(self.alpha, **options)
        source = random.Random(1)
        for _ in range(ROUNDS):
            for subject, reply, data in messages:
                for other in spoiled(data, source):
                    attacking.publish(subject, other,
                                      source.choice([b"", reply, subject, b"nobody.listens"]))
            attacking.flush()

    def judge_requests(self):
        """Whoever may publish as a broker may have requests lost and events repeated. Brokers
        stay, everybody is served again, and no request has two outcomes or a false one."""
        self.wait_for_answers()
        for machine in self.fleet:
            self.assertTrue(machine.broker.is_running(), machine.broker.output())
            self.assertTrue(machine.answers(), machine.name)
        for program in (*self.loads, *self.listeners):
            program.finish()
        self.assertEqual([], traffic.wrong_with([*self.loads, *self.ended], self.fleet)[:20])
        self.assertEqual([], traffic.wrong_with_counters([self.beta]))

    def test_spoiled_and_replayed_messages_break_no_broker_and_no_request(self):
        self.start()
        self.start_traffic()
        self.attack(self.seen_traffic())
        self.judge_requests()

    def test_messages_into_the_midst_of_traffic_break_no_broker_and_no_request(self):
        self.start()
        self.start_traffic()
        watching = self.attacker(self.alpha)
        watching.subscribe(b">")
        self.wait_for_answers()
        self.attack(watching.flush()[-50:])
        watching.close()
        self.judge_requests()

    def test_a_client_without_rights_on_the_brokers_subjects_disturbs_nobody(self):
        self.start_with(alpha="all", beta="all", gamma="all")
        self.start_traffic()
        seen = self.seen_traffic(**{"user": "all", "pass": PASSWORD})
        self.attack(seen, **{"user": "stranger", "pass": PASSWORD})
        self.wait_for_answers()
        self.finish_traffic()
        for load in (*self.loads, *self.ended):
            self.assertEqual(set(load.outcomes()), {traffic.ANSWERED})
        for listener in self.listeners:
            self.assertEqual([event for event, _, _ in listener.changes()], ["0"])

    def test_a_broker_that_may_not_publish_answers_at_once_and_serves_its_own_machine(self):
        self.start_with(alpha="mute", beta="all", gamma="all")
        self.beta.start_test_service()
        self.wait_for_answer(self.gamma)
        begin = time.monotonic()
        asked = self.alpha.request("test", "echo")
        self.assertIn(asked.returncode, (3, 4), asked.stderr)
        self.assertLess(time.monotonic() - begin,
                        (traffic.OUTCOME_LIMIT_MS + traffic.SLACK_MS) / 1000)
        eventually(lambda: "ermission" in self.alpha.broker.output(), "a line in the log")
        self.alpha.start_test_service()
        self.assertTrue(self.alpha.answers())


if __name__ == "__main__":
    main()

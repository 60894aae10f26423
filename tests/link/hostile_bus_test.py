"""Other clients of the message servers: what an attacker publishes crashes no broker and changes
nothing for others, and a broker without rights on the server says so and goes on."""

import random
import time

import traffic
from fleet import eventually
from fleet_case import FleetTest, main
from nats_client import Client

ROUNDS = 20


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
    def attacker(self, machine, **options):
        client = Client(self.fleet.network.connect(machine.name), **options)
        self.addCleanup(client.close)
        return client

    def seen_traffic(self):
        """Everything that brokers say to each other for one initiator and some events."""
        watching = self.attacker(self.alpha)
        watching.subscribe(b">")
        victim = traffic.Load(self.gamma, 9)
        victim.wait_for()
        victim.finish()
        self.loads.append(victim)
        seen = {}
        for message in watching.flush():
            if not message[0].startswith((b"$", b"_INBOX")):
                seen.setdefault(message[0], []).append(message)
        self.assertTrue(seen)
        return [message for messages in seen.values()
                for message in messages[:5] + messages[-5:]]

    def attack(self, messages):
        attacking = self.attacker(self.alpha)
        source = random.Random(1)
        for _ in range(ROUNDS):
            for subject, reply, data in messages:
                for other in spoiled(data, source):
                    attacking.publish(subject, other,
                                      source.choice([b"", reply, subject, b"nobody.listens"]))
            attacking.flush()

    def test_spoiled_and_replayed_messages_of_others_disturb_nobody(self):
        self.start()
        self.start_traffic()
        self.attack(self.seen_traffic())
        self.wait_for_answers()
        for machine in self.fleet:
            self.assertTrue(machine.broker.is_running(), machine.broker.output())
            self.assertTrue(machine.answers(), machine.name)
        self.finish_traffic()
        for load in self.loads:
            self.assertEqual(set(load.outcomes()), {traffic.ANSWERED})

    def test_messages_into_the_midst_of_traffic_end_at_most_what_they_were_sent_to(self):
        self.start()
        self.start_traffic()
        watching = self.attacker(self.alpha)
        watching.subscribe(b">")
        self.wait_for_answers()
        self.attack(watching.flush()[-50:])
        watching.close()
        self.wait_for_answers()
        for machine in self.fleet:
            self.assertTrue(machine.broker.is_running(), machine.broker.output())
            self.assertTrue(machine.answers(), machine.name)


class RightsTest(FleetTest):
    SERVER = """authorization { users: [
        { user: all, password: secret },
        { user: mute, password: secret, permissions: { publish: { deny: ">" } } } ] }
"""

    def start_with(self, **users):
        self.start(brokers=False, server_settings=self.SERVER)
        password = self.fleet.folder / "password"
        password.write_text("secret\n")
        password.chmod(0o600)
        for name, user in users.items():
            self.fleet[name].start_broker(link=f'user = "{user}"\npassword_file = "{password}"')

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

"""encapd, and what encapctl says of its database."""

import collections
import json
import os
import signal
import subprocess
import threading
import time

from common import DIRECTORY, Difference, children, spawn, wait_until

Database = collections.namedtuple("Database", "references indexes fpm summary")


class Daemon:
    def __init__(self, binaries, port):
        self.binaries = binaries
        self.port = port
        self.name = "mpls-egress-encap"
        self.played = {}  # what the hardware has by the events: labels and interface of each NH
        self.highest = {}  # by name of the database: how many indexes of NHs and of tunnels were ever given out
        self.moves = 0    # NHs that entered or left the hardware
        self.read = 0     # bytes of the events
        self.lag = self.unread = 0
        threading.Thread(target=self.sample, daemon=True).start()

    def start(self, *options, settle="never", name="mpls-egress-encap"):
        """Its router is complete when the lab says so, unless `settle` has a number of seconds."""
        self.name = name
        database = self.database()
        self.played = database.indexes if database else {}
        self.read = 0
        events = open(f"{DIRECTORY}/events", "w")
        spawn("encapd", [f"{self.binaries}/encapd", "--fpm", f"127.0.0.1:{self.port}", "--name", name, "--events",
                         "--settle", settle, *options], stdout=events)
        events.close()
        wait_until(lambda: self.status().get("pid") == children["encapd"].pid, "encapd listens")

    def kill(self):
        self.end(signal.SIGKILL)

    def end(self, number=signal.SIGTERM):
        encapd = children.pop("encapd")
        encapd.send_signal(number)
        status = encapd.wait()
        if status != (-number if number == signal.SIGKILL else 0):
            raise Difference(f"encapd ended with status {status} at signal {number}")

    @staticmethod
    def messages(words):
        """What encapd has said with these words in it."""
        with open(f"{DIRECTORY}/encapd.log") as log:
            return [line.strip() for line in log if words in line]

    def settle(self):
        self.run("settle", "fpm")
        wait_until(lambda: self.status().get("settled"), "encapd has settled")

    def status(self):
        try:
            with open(f"/dev/shm/{self.name}.fpm.status") as file:
                return json.load(file)
        except FileNotFoundError:
            return {}

    def sample(self):
        """Keeps the longest time from the arrival of bytes until the database had them, and the most unread bytes."""
        while True:
            status = self.status()
            self.lag = max(self.lag, status.get("lag_us", 0))
            self.unread = max(self.unread, status.get("unread_bytes", 0))
            time.sleep(0.4)

    def run(self, *words, statuses=(0,)):
        done = subprocess.run([f"{self.binaries}/encapctl", *words, "--name", self.name, "--json"],
                              capture_output=True, text=True)
        if done.returncode not in statuses:
            raise Difference(f"encapctl {' '.join(words)} ends with {done.returncode}: {done.stdout}{done.stderr}")
        return [json.loads(line) for line in done.stdout.splitlines()]

    def ledger(self):
        """What encapd holds, by the database: references, stale ones, calls. None before its first start."""
        clients = {each["name"]: each for each in self.run("clients", statuses=(0, 1))[:-1]}
        return clients.get("fpm")

    def database(self):
        """What the database has: references by (interface, labels from the top), and the key of each NH index."""
        if not os.path.exists(f"/dev/shm/{self.name}"):
            return None
        references, indexes = collections.Counter(), {}
        for nh in self.run("show", "nhs", statuses=(0, 1))[:-1]:
            key = key_of(nh)
            references[key] += nh["ref_count"]
            indexes[nh["nh"]] = key
            held = {each["name"]: each["held"] for each in nh["holders"]}
            if held != {"fpm": nh["ref_count"]}:
                raise Difference(f"NH {nh['nh']} has {nh['ref_count']} references, and its holders have {held}")
        return Database(references, indexes, self.ledger(), self.summary())

    def summary(self):
        return self.run("summary")[0]

    def play_events(self):
        """Does what a programmer of the hardware does with the events that were not read yet."""
        with open(f"{DIRECTORY}/events") as file:
            file.seek(self.read)
            while (line := file.readline()).endswith("\n"):
                self.read = file.tell()
                event = json.loads(line)
                used = (event["nh"] - 999 if event["kind"] == "nh" else 0, event["tunnel"])
                self.highest[self.name] = [max(pair) for pair in zip(self.highest.get(self.name, (0, 0)), used)]
                if event["kind"] != "nh":
                    continue
                self.moves += 1
                if (event["event"] == "entered") == (event["nh"] in self.played):
                    raise Difference(f"an event makes no sense, NH {event['nh']} has {event['event']}: {line.strip()}")
                if event["event"] == "entered":
                    self.played[event["nh"]] = key_of(event)
                else:
                    del self.played[event["nh"]]


def key_of(nh):
    labels = (nh["label3"], nh["label2"], nh["label1"])
    return nh["ifh"], tuple(label for at, label in enumerate(labels) if label != 0 or at == 2)

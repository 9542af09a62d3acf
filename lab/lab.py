"""Runs scenarios with a real router: FRR's routes go over FPM into encapd, and the database is compared with FRR."""

import argparse
import glob
import shutil
import subprocess
import sys
import time

import scenarios
from common import DIRECTORY, Difference, check_children, wait_until
from daemon import Daemon
from expected import expected_of
from peer import Peer
from router import Router
from tee import Tee

FPM_PORT = 2620
INDEXES_A_PAGE = 1022  # that were given back and wait to be given out again


class Lab:
    def __init__(self, options):
        self.router = Router(FPM_PORT)
        self.tee = Tee(FPM_PORT, FPM_PORT + 1, options.record) if options.record else None
        self.daemon = Daemon(options.binaries, FPM_PORT + 1 if self.tee else FPM_PORT)
        self.peer = Peer()
        self.routes, self.labels = options.routes, options.routes // 10
        self.scenario = ""
        self.began = time.monotonic()

    def label(self, number):
        """Of a route of BGP."""
        return 300000 + number % self.labels

    @staticmethod
    def ip(*words):
        subprocess.run(["ip", *words], check=True)

    def run(self, scenario):
        self.scenario = scenario.__name__
        if self.tee:
            self.tee.scenario = self.scenario
        self.began = time.monotonic()
        scenario(self)
        self.agree("all routes go", paths=0)

    def end(self):
        """encapd gives everything up: all pages must be free again, but for those that keep indexes to be given out."""
        daemon = self.daemon
        daemon.end()
        daemon.start("--leave")
        daemon.end()
        left, given_out = daemon.summary(), daemon.highest.get(daemon.name, (0, 0))
        daemon.start("--leave", name="new")
        daemon.end()
        new = daemon.summary()["heap"]["pages_used"]
        indexes = sum(-(-count // INDEXES_A_PAGE) for count in given_out)
        heap = left["heap"]
        if heap["pages_used"] != new + indexes or left["nhs"]["used"] or heap["nodes40"] or heap["nodes56"]:
            raise Difference(f"{heap['pages_used']} pages are in use at the end, {new} in a new database; {indexes} "
                             f"more keep the {given_out} indexes of NHs and tunnels that were given back")
        print(f"the database is empty: {heap['pages'] - heap['pages_used']} pages are free, {heap['pages'] - new} in a "
              f"new one, where no pages keep indexes that were given back")

    def refreshed(self, connections, paths):
        """Waits until the router has connected anew and sent all paths again, and says so to encapd."""
        wait_until(lambda: self.daemon.status().get("connections", 0) > connections, "zebra connects again")
        wait_until(lambda: self.daemon.status()["references"] == paths, f"zebra has sent all {paths} paths again")
        self.daemon.settle()

    def restart_encapd(self):
        self.daemon.kill()
        self.daemon.start()

    def unchanged(self, text):
        """The router is away: the database has what it had."""
        database = self.daemon.database()
        if database.references != self.last.references:
            raise Difference(first_difference(self.last, database))
        self.daemon.play_events()
        self.tell(text, self.last.routes, database)

    def full(self, text, paths, nhs):
        """Waits until the database has no room for more: it has `nhs` NHs, and a part of what FRR needs."""
        def is_full():
            expected, database, status = expected_of(self.router), self.daemon.database(), self.daemon.status()
            held = database.references
            return (expected and expected.references.total() == paths and len(database.indexes) == nhs
                    and status["references"] == held.total() and status["waiting"] == paths - held.total()
                    and held <= expected.references and (expected, database))
        expected, database = wait_until(is_full, f"FRR has {paths} paths and the database {nhs} NHs for a part of them")
        self.daemon.run("check")
        told = len(self.daemon.messages("no index is free"))
        if told != 1:
            raise Difference(f"encapd said {told} times that no index is free, and once is enough")
        self.daemon.play_events()
        self.tell(text, expected.routes, database)

    def agree(self, text, paths, too_deep=0, moves=None, when=lambda references: True):
        """`when` says of FRR's references whether the router has carried out what it was told."""
        def router_has():
            expected = expected_of(self.router)
            return (expected and (expected.references.total(), expected.too_deep) == (paths, too_deep)
                    and when(expected.references) and expected)

        def agrees():
            database = self.daemon.database()
            return database.references == expected.references and database.fpm["stale"] == 0

        expected = wait_until(router_has, f"FRR has {paths} labelled paths and {too_deep} with too many labels")
        try:
            wait_until(agrees, "the database has what FRR has", 20)
        except Difference:
            raise Difference(first_difference(expected, self.daemon.database())) from None
        time.sleep(0.5)  # what comes too much or too late comes now
        self.compare(text, router_has() or expected, moves)

    def compare(self, text, expected, moves):
        check_children()
        database = self.daemon.database()
        if database.references != expected.references:
            raise Difference(first_difference(expected, database))
        total = expected.references.total()

        def encapd_counts():  # its status is up to a second old
            status = self.daemon.status()
            return status and (status["references"], status["waiting"], status["refused_now"]["too_deep"]) == (
                total, 0, expected.too_deep)

        wait_until(encapd_counts, f"encapd itself counts {total} references, none that waits, and {expected.too_deep} "
                                  "paths with too many labels")
        self.daemon.play_events()
        for count, sentence in ((database.fpm["held"], "the client's ledger has"),
                                (database.summary["nhs"]["references"], "the counts of all NHs make")):
            if count != total:
                raise Difference(f"FRR has {total} labelled paths, and {sentence} {count} references")
        if self.daemon.played != database.indexes:
            raise Difference(f"the events make {len(self.daemon.played)} NHs, and the database has "
                             f"{len(database.indexes)}")
        if moves is not None and self.daemon.moves != moves:
            raise Difference(f"{self.daemon.moves} NHs entered or left the hardware, and {moves} should have")
        for error in self.daemon.messages("encapd: error: "):
            raise Difference(error)
        self.daemon.run("check")
        self.last = expected
        self.tell(text, expected.routes, database)

    def tell(self, text, routes, database):
        daemon, took = self.daemon, time.monotonic() - self.began
        print(f"{self.scenario:<7}{text:<55}{routes:>7}{database.references.total():>11}{len(database.indexes):>5}"
              f"{daemon.moves:>6}{took:>8.1f}{daemon.lag / 1000:>7.1f}", flush=True)
        daemon.moves = daemon.lag = 0
        self.began = time.monotonic()


def first_difference(expected, database):
    here, there = database.references, expected.references
    key = next((key for key in sorted(here | there) if here[key] != there[key]), None)
    if key is None:
        return f"the database has all {there.total()} references, and {database.fpm['stale']} of them are stale"
    interface, labels = key
    return (f"labels {'/'.join(map(str, labels))} on interface {interface}: FRR has {there[key]} paths, and the "
            f"database has {here[key]} references")


def read_options():
    parser = argparse.ArgumentParser(prog="./dev lab", description=__doc__)
    parser.add_argument("binaries", help=argparse.SUPPRESS)
    parser.add_argument("scenario", nargs="*", help="run these alone")
    parser.add_argument("--list", action="store_true", help="print the scenarios")
    parser.add_argument("--record", metavar="DIR", help="write what zebra sends to files there, and the logs")
    parser.add_argument("--routes", metavar="N", type=int, default=5000, help="routes of BGP, ten a label (5000)")
    return parser.parse_intermixed_args()


def main():
    options = read_options()
    known = {each.__name__: each for each in scenarios.SCENARIOS}
    unknown = [name for name in options.scenario if name not in known]
    if unknown:
        sys.exit(f"lab: there is no scenario '{unknown[0]}'; ./dev lab --list prints them")
    if options.list:
        for name, scenario in known.items():
            print(f"{name:<7}{scenario.__doc__}")
        return 0
    print(f"{'':<7}{'':<55}{'routes':>7}{'references':>11}{'NHs':>5}{'moved':>6}{'seconds':>8}{'lag ms':>7}")
    began = time.monotonic()
    lab = Lab(options)
    try:
        lab.daemon.start()
        lab.router.start("zebra", "staticd", "bgpd")
        wait_until(lambda: lab.daemon.status().get("connected"), "zebra connects to encapd")
        lab.daemon.settle()
        for name in options.scenario or known:
            lab.run(known[name])
        lab.end()
    except Difference as difference:
        print(f"lab: {lab.scenario}: {difference}", file=sys.stderr)
        return 1
    finally:
        if options.record:
            for log in glob.glob(f"{DIRECTORY}/*.log"):
                shutil.copy(log, options.record)
    print(f"everything agrees, after {time.monotonic() - began:.0f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())

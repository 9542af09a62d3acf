"""What the lab's modules share: where files are, the processes, and waiting."""

import subprocess
import time

DIRECTORY = "/dev/shm/lab"  # /dev/shm is a file system of the lab's own


class Difference(Exception):
    """Something is not as it must be. The lab ends with the sentence."""


children = {}  # the running processes of the lab, by name


def spawn(name, command, **options):
    with open(f"{DIRECTORY}/{name}.log", "a") as log:
        options = {"stdout": log, "stderr": log, "stdin": subprocess.DEVNULL, **options}
        children[name] = subprocess.Popen(command, **options)


def check_children():
    for name, child in children.items():
        if child.poll() is not None:
            with open(f"{DIRECTORY}/{name}.log") as log:
                last = "".join(log.readlines()[-5:]).strip()
            raise Difference(f"{name} has ended with status {child.returncode}: {last}")


def wait_until(condition, sentence, seconds=60, pause=0.1):
    """Returns what the condition returns once that is true. The sentence says what is waited for."""
    end = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        check_children()
        if time.monotonic() > end:
            raise Difference(f"{seconds} seconds have passed, and it is not so that {sentence}")
        time.sleep(pause)

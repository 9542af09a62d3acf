"""The router's neighbour: ExaBGP in the namespace "peer", which announces routes with labels."""

import os

from common import DIRECTORY, children, spawn

CONFIGURATION = f"""process lab {{ run /bin/cat {DIRECTORY}/announcements; encoder text; }}
neighbor 10.0.1.1 {{
  router-id 10.0.1.2; local-address 10.0.1.2; local-as 65002; peer-as 65001;
  family {{ ipv4 nlri-mpls; }}
  api {{ processes [ lab ]; }}
}}
"""


def prefix(number):
    return f"10.{100 + number // 250}.{number % 250}.0/24"


class Peer:
    def __init__(self):
        self.pipe = None

    def start(self):
        with open(f"{DIRECTORY}/exabgp.conf", "w") as file:
            file.write(CONFIGURATION)
        path = f"{DIRECTORY}/announcements"
        if not os.path.exists(path):
            os.mkfifo(path, 0o666)
        self.pipe = os.open(path, os.O_RDWR)
        environment = dict(os.environ, **{"exabgp.daemon.drop": "false", "exabgp.daemon.user": "root",
                                          "exabgp.api.ack": "false", "exabgp.api.cli": "false",
                                          "exabgp.log.level": "WARNING"})
        spawn("exabgp", ["ip", "netns", "exec", "peer", "exabgp", f"{DIRECTORY}/exabgp.conf"], env=environment)

    def announce(self, numbers, label_of):
        self.say(f"announce route {prefix(n)} next-hop 10.0.1.2 label {label_of(n)}" for n in numbers)

    def withdraw(self, numbers, label_of):
        self.say(f"withdraw route {prefix(n)} next-hop 10.0.1.2 label {label_of(n)}" for n in numbers)

    def say(self, lines):
        text = "".join(line + "\n" for line in lines).encode()
        while text:
            text = text[os.write(self.pipe, text):]

    def kill(self):
        """The session breaks, and all its routes go."""
        exabgp = children.pop("exabgp")
        exabgp.kill()
        exabgp.wait()
        os.close(self.pipe)

"""The router: FRR's zebra, staticd and bgpd, each in the foreground as a child of the lab."""

import json
import os
import subprocess

from common import DIRECTORY, Difference, children, spawn, wait_until

CONFIGURATION = {
    "zebra": """hostname router
fpm address 127.0.0.1 port {port}
zebra nexthop-group keep 2
""",  # seconds, instead of three minutes, that a nexthop object stays without a route
    "staticd": "",
    "bgpd": """router bgp 65001
 no bgp ebgp-requires-policy
 no bgp default ipv4-unicast
 neighbor 10.0.1.2 remote-as 65002
 neighbor 10.0.1.2 timers connect 1
 address-family ipv4 labeled-unicast
  neighbor 10.0.1.2 activate
 exit-address-family
""",
}
VTY = f"{DIRECTORY}/vty"


class Router:
    def __init__(self, port):
        os.makedirs(VTY)
        os.chmod(VTY, 0o777)
        for name, text in CONFIGURATION.items():
            with open(f"{DIRECTORY}/{name}.conf", "w") as file:
                file.write(text.format(port=port))

    def start(self, *names):
        for name in names:
            command = [f"/usr/lib/frr/{name}", "-f", f"{DIRECTORY}/{name}.conf", "-i", f"{DIRECTORY}/{name}.pid",
                       "-z", f"{DIRECTORY}/zserv", "--vty_socket", VTY, "-A", "127.0.0.1"]
            environment = dict(os.environ)
            if name == "zebra":
                command += ["-M", "dplane_fpm_nl"]
                environment["LD_PRELOAD"] = f"{DIRECTORY}/stand_in_for_mpls.so"
            spawn(name, command, env=environment)
            wait_until(lambda: self.answers(name), f"{name} answers")

    def kill(self, *names):
        """All at once, with SIGKILL."""
        for name in names:
            children[name].kill()
        for name in names:
            children.pop(name).wait()
            for leftover in (f"{VTY}/{name}.vty", f"{DIRECTORY}/zserv" if name == "zebra" else ""):
                if os.path.exists(leftover):
                    os.unlink(leftover)

    def answers(self, name):
        return self.vtysh("-d", name, "-c", "show version").returncode == 0

    @staticmethod
    def vtysh(*words):
        return subprocess.run(["vtysh", "--vty_socket", VTY, *words], capture_output=True, text=True)

    def configure(self, *lines):
        path = f"{DIRECTORY}/lines.conf"
        with open(path, "w") as file:
            file.write("\n".join(lines) + "\n")
        done = self.vtysh("-f", path)
        if done.returncode != 0:
            raise Difference(f"vtysh refuses a line of {lines[:3]}: {done.stdout} {done.stderr}")

    def show(self, what):
        done = self.vtysh("-c", f"show {what} json")
        try:
            return json.loads(done.stdout)
        except ValueError:
            return None  # a daemon is away, or not there yet

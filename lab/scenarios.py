"""The scenarios. Each begins and ends with a router that has no labelled route and with an empty database.

`lab.agree(text, paths)` waits until the router has that many labelled paths, and then until the database has exactly
what the router says, and prints a line. `moves` says how many NHs may enter or leave the hardware.
"""

from common import wait_until
from expected import OTHER_TABLE

ETH1, ETH2 = 2, 3  # the indexes of the interfaces: the loopback has 1


def static(lab):
    """static routes with 1 to 4 labels, two paths, a changed path, a path that another route resolves"""
    lab.router.configure("ip route 10.9.1.0/24 10.0.1.2 label 101", "ip route 10.9.2.0/24 10.0.1.2 label 102/202",
                         "ip route 10.9.3.0/24 10.0.1.2 label 103/203/303",
                         "ip route 10.9.4.0/24 10.0.1.2 label 104/204/304/404")
    lab.agree("1, 2 and 3 labels are held, 4 are refused", paths=3, too_deep=1)
    lab.router.configure("ip route 10.9.5.0/24 10.0.1.2 label 105", "ip route 10.9.5.0/24 10.0.2.2 label 105")
    lab.agree("two paths, by two interfaces", paths=5, too_deep=1, moves=2)
    lab.router.configure("no ip route 10.9.2.0/24 10.0.1.2 label 102/202",
                         "ip route 10.9.2.0/24 10.0.1.2 label 102/212")
    lab.agree("another label for one path", paths=5, too_deep=1, moves=2, when=lambda has: has[ETH1, (102, 212)])
    lab.router.configure("ip route 10.9.6.0/24 10.9.2.77 label 106", "ip route 10.9.7.0/24 10.9.3.77 label 107")
    lab.agree("paths resolved by labelled routes: 3 labels, 4 labels", paths=6, too_deep=2, moves=1)
    lab.router.configure("no ip route 10.9.5.0/24 10.0.1.2 label 105", "no ip route 10.9.6.0/24 10.9.2.77 label 106",
                         "no ip route 10.9.7.0/24 10.9.3.77 label 107")
    lab.agree("one of two paths goes", paths=4, too_deep=1, moves=2)
    lab.router.configure("no ip route 10.9.1.0/24 10.0.1.2 label 101", "no ip route 10.9.2.0/24 10.0.1.2 label 102/212",
                         "no ip route 10.9.3.0/24 10.0.1.2 label 103/203/303",
                         "no ip route 10.9.4.0/24 10.0.1.2 label 104/204/304/404",
                         "no ip route 10.9.5.0/24 10.0.2.2 label 105")


def ipv6(lab):
    """IPv6 routes, one with two paths, one that shares its encapsulation with an IPv4 route"""
    lines = ["ipv6 route 2001:db8:9::/48 2001:db8:1::2 label 600", "ip route 10.9.1.0/24 10.0.1.2 label 600",
             "ipv6 route 2001:db8:a::/48 2001:db8:1::2 label 601/701",
             "ipv6 route 2001:db8:a::/48 2001:db8:2::2 label 601/701"]
    lab.router.configure(*lines)
    lab.agree("three paths of IPv6, one of IPv4", paths=4, moves=3)
    lab.router.configure(*("no " + line for line in lines))


def lsp(lab):
    """LSPs: labels swapped, taken off, two paths"""
    lines = ["mpls lsp 1000 10.0.1.2 2000", "mpls lsp 1001 10.0.1.2 implicit-null", "mpls lsp 1002 10.0.1.2 2002",
             "mpls lsp 1002 10.0.2.2 2002"]
    lab.router.configure(*lines)
    lab.agree("one swaps, one takes off, one has two paths", paths=3, moves=3)
    lab.router.configure("no mpls lsp 1000 10.0.1.2 2000", "mpls lsp 1000 10.0.1.2 2009")
    lab.agree("another outgoing label", paths=3, moves=2, when=lambda has: has[ETH1, (2009,)])
    lab.router.configure("no mpls lsp 1000 10.0.1.2 2009", *("no " + line for line in lines[1:]))


def rare(lab):
    """another table, two distances, explicit null, an LSP over IPv6, a neighbour by link-local address"""
    lines = [f"ip route 10.9.1.0/24 10.0.1.2 label 101 table {OTHER_TABLE}", "ip route 10.9.1.0/24 10.0.1.2 label 101",
             "ip route 10.9.2.0/24 10.0.1.2 label 102 10", "ip route 10.9.2.0/24 10.0.2.2 label 102 20",
             "ip route 10.9.3.0/24 10.0.1.2 eth1 label 103 onlink", "mpls lsp 1005 10.0.1.2 explicit-null",
             "mpls lsp 1006 2001:db8:1::2 2006", "ipv6 route 2001:db8:f::/48 fe80::1 eth1 label 104"]
    lab.router.configure(*lines)
    lab.agree("all of them; the worse distance waits", paths=7, moves=6, when=lambda has: has[ETH1, (102,)])
    lab.router.configure("no " + lines[2])
    lab.agree("the better distance goes, the worse one comes", paths=7, moves=2, when=lambda has: has[ETH2, (102,)])
    lab.router.configure("no " + lines[0])
    lab.agree("one of two tables loses the prefix", paths=6, moves=0)
    lab.router.configure(*("no " + line for line in lines[1:2] + lines[3:]))


def inline(lab):
    """the same routes with nexthop objects, then with inline paths, then with objects again"""
    lines = [f"ip route 10.20.{n}.0/24 10.0.{1 + n % 2}.2 label {400 + n % 40}/{500 + n % 50}" for n in range(200)]
    lines += [f"ip route 10.20.{n}.0/24 10.0.{2 - n % 2}.2 label 399" for n in range(0, 200, 4)]
    lab.router.configure(*lines)
    lab.agree("200 routes that name nexthop objects", paths=250)
    for words, text in (("no fpm use-next-hop-groups", "all again with inline paths"),
                        ("fpm use-next-hop-groups", "all again with nexthop objects")):
        connections = lab.daemon.status()["connections"]
        lab.router.configure(words)
        lab.refreshed(connections, 250)
        lab.agree(text, paths=250, moves=0)
    lab.router.configure(*("no " + line for line in lines))


def link(lab):
    """an interface goes down and comes back, under routes with one path and with two"""
    lines = [f"ip route 10.20.{n}.0/24 10.0.{1 + n % 2}.2 label {400 + n}" for n in range(100)]
    lines += [f"ip route 10.21.{n}.0/24 10.0.{way}.2 label {600 + n}/{700 + n}" for n in range(20) for way in (1, 2)]
    lab.router.configure(*lines)
    lab.agree("100 routes with one path, 20 with two", paths=140, moves=140)
    lab.ip("link", "set", "eth2", "down")
    lab.agree("one of two interfaces goes down", paths=70, moves=70)
    lab.ip("link", "set", "eth2", "up")
    lab.agree("it comes back", paths=140, moves=70)
    lab.router.configure(*("no " + line for line in lines))


def bgp(lab):
    """BGP labelled unicast: routes announced, half of them withdrawn, labels moved, the session lost"""
    flood(lab)
    lab.agree("announced, each with an LSP", paths=2 * lab.routes, moves=lab.labels)
    lab.peer.withdraw(range(0, lab.routes, 2), lab.label)
    lab.agree("half of them withdrawn", paths=lab.routes, moves=lab.labels // 2)
    for number in range(1, lab.routes, 2):  # ExaBGP does not announce a route again when only its label differs
        lab.peer.withdraw([number], lab.label)
        lab.peer.announce([number], lambda number: lab.label(number + 7))
    lab.agree("labels moved", paths=lab.routes, moves=lab.labels,
              when=lambda has: all(labels[0] % 2 == 0 for _, labels in has))
    lab.peer.kill()
    lab.agree("session lost", paths=0, moves=lab.labels // 2)


def zebra(lab):
    """zebra is killed and started again; staticd and bgpd come back seconds after it"""
    paths = some_of_each(lab)
    connections = lab.daemon.status()["connections"]
    lab.router.kill("zebra", "bgpd")
    wait_until(lambda: not lab.daemon.status()["connected"], "encapd knows that the connection is lost")
    lab.unchanged("zebra killed: everything is kept")
    lab.router.start("zebra", "bgpd")
    lab.refreshed(connections, paths)
    lab.agree("zebra is back with all routes", paths, moves=0)
    none_of_each(lab)


def encapd(lab):
    """encapd is killed in the middle of a flood, again in the middle of its refresh, and started again"""
    flood(lab)
    wait_until(lambda: lab.daemon.ledger()["held"] > lab.routes // 4, "the flood has begun")
    lab.restart_encapd()
    wait_until(lambda: lab.daemon.ledger()["stale"] < lab.daemon.ledger()["held"], "the refresh has begun", pause=0)
    lab.restart_encapd()
    lab.refreshed(0, 2 * lab.routes)
    lab.agree("killed in a flood, and in the refresh", paths=2 * lab.routes)
    lab.daemon.end()
    lab.daemon.start(settle="1")
    lab.agree("ended, and settled 1 s after the last message", paths=2 * lab.routes, moves=0)
    lab.peer.kill()


def both(lab):
    """the whole router and encapd are killed at once, and started again"""
    paths = some_of_each(lab)
    lab.daemon.kill()
    lab.router.kill("zebra", "bgpd", "staticd")
    lab.daemon.start()
    lab.unchanged("all killed: everything is kept")
    lab.router.start("zebra", "bgpd", "staticd")
    lab.router.configure(*two_label_lines(100))
    lab.refreshed(0, paths)
    lab.agree("all are back", paths, moves=0)
    none_of_each(lab)


def room(lab):
    """ranges too small for the routes, and then room"""
    lab.daemon.end()
    lab.daemon.start("--nh-size", str(lab.labels // 5), "--tun-size", "20", name="small")
    lines = two_label_lines(50)
    lab.router.configure(*lines)
    lab.full("tunnels for 20 of 50 routes", paths=50, nhs=20)
    flood(lab)
    lab.full("NHs for a fifth of the labels", paths=2 * lab.routes + 50, nhs=lab.labels // 5)
    kept = lab.labels // 5 - 10
    lab.router.configure(*("no " + line for line in lines[:40]))
    lab.peer.withdraw((number for number in range(lab.routes) if number % lab.labels >= kept), lab.label)
    lab.agree("room: as many labels and tunnels as indexes", paths=2 * 10 * kept + 10)
    lab.router.configure(*("no " + line for line in lines[40:]))
    lab.peer.kill()
    lab.agree("the others go, too", paths=0, moves=lab.labels // 5)
    lab.daemon.end()
    lab.daemon.start(settle="1")
    wait_until(lambda: lab.daemon.status().get("settled"), "the first database is in use again")


def two_label_lines(count):
    return [f"ip route 10.20.{n}.0/24 10.0.{1 + n % 2}.2 label {400 + n}/{500 + n}" for n in range(count)]


def some_of_each(lab):
    """Returns: how many paths these are."""
    lab.router.configure(*two_label_lines(100))
    flood(lab)
    lab.agree("static routes and routes of BGP", paths=2 * lab.routes + 100, moves=100 + lab.labels)
    return 2 * lab.routes + 100


def none_of_each(lab):
    lab.peer.kill()
    lab.router.configure(*("no " + line for line in two_label_lines(100)))


def flood(lab):
    lab.peer.start()
    lab.peer.announce(range(lab.routes), lab.label)


SCENARIOS = [static, ipv6, lsp, rare, inline, link, bgp, zebra, encapd, both, room]

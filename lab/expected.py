"""What the database must hold, worked out from what FRR says that it has. Nothing here knows how encapd does it."""

import collections
import ipaddress

OTHER_TABLE = 77
TABLES = ("ip route", f"ip route table {OTHER_TABLE}", "ipv6 route", "mpls table")
IMPLICIT_NULL = 3  # as the outgoing label of an LSP: the label is taken off, and none is put on
MOST_LABELS = 3
# 0 and 2 (explicit null) may stand at the bottom; the other labels below 16 have meanings of their own.
RESERVED = {False: set(range(16)), True: set(range(16)) - {0, 2}}

# references: how many paths there are for each (interface, labels from the top); too_deep: paths that are not held;
# routes: those with a labelled path.
Expected = collections.namedtuple("Expected", "references too_deep routes")


def expected_of(router):
    """Returns None while a daemon of the router does not answer."""
    *tables, lsps = (router.show(what) for what in TABLES)
    if lsps is None or None in tables:
        return None
    paths = [list(paths_of_route(route)) for table in tables for routes in table.values() for route in routes]
    networks = list(connected_networks(tables))
    paths += [list(paths_of_lsp(lsp, networks)) for lsp in lsps.values()]
    expected = Expected(collections.Counter(), 0, sum(1 for each in paths if each))
    too_deep = 0
    for interface, labels in (path for each in paths for path in each):
        if len(labels) > MOST_LABELS:
            too_deep += 1
        elif not any(label in RESERVED[at == len(labels) - 1] for at, label in enumerate(labels)):
            expected.references[interface, labels] += 1
    return expected._replace(too_deep=too_deep)


def paths_of_route(route):
    """The labelled paths that packets can take. FRR lists a next hop that it resolves by another route, too."""
    if not (route.get("selected") and route.get("installed")):
        return
    for hop in route["nexthops"]:
        labels = tuple(hop.get("labels", ()))
        if hop.get("active") and hop.get("fib") and not hop.get("recursive") and labels not in ((), (IMPLICIT_NULL,)):
            yield hop["interfaceIndex"], labels


def connected_networks(tables):
    for table in tables:
        for routes in table.values():
            for route in routes:
                if route["protocol"] == "connected" and route.get("selected"):
                    yield ipaddress.ip_network(route["prefix"]), route["nexthops"][0]["interfaceIndex"]


def paths_of_lsp(lsp, networks):
    """FRR does not say the interface of an LSP: it is the one of the network that the next hop is in."""
    for hop in lsp["nexthops"]:
        labels = tuple(hop["outLabelStack"])
        if not hop.get("installed") or labels == (IMPLICIT_NULL,):
            continue
        address = ipaddress.ip_address(hop["nexthop"])
        for network, interface in networks:
            if address in network:
                yield interface, labels

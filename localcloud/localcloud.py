#!/usr/bin/python3
"""A cloud on this machine: everything that kivApp speaks to, on loopback.

HTTPS: configuration, terms of use, time, the stream service (PutRecord) and the
object service (PutObject, GetObject). HTTP: geolocation, control and a page to
watch what arrives. README.md says what it checks, what it keeps and how to make
it misbehave.
"""

import argparse
import ipaddress
import json
import os
import signal
import sys
import threading

from actions import ControlError
from certificates import Certificates
from configuration import Services, ServicesFileError
from portowner import PortTaken
from requestlog import RequestLog
from scenario import Scenario
from server import LocalCloud
from store import Store

HERE = os.path.dirname(os.path.abspath(__file__))
DEFAULT_SERVICES = os.path.join(os.path.dirname(HERE), "services", "local.json")


def port_number(text):
    number = int(text)
    if not 0 <= number <= 65535:
        raise ValueError(text)
    return number


def address(text):
    return str(ipaddress.IPv4Address(text))


def parse_arguments():
    parser = argparse.ArgumentParser(
        description="Run the services that kivApp speaks to on this machine; on loopback only, "
                    "where nothing else is said. Their page is at / of the HTTP port.",
        epilog='Prints "ready https=PORT http=PORT control=URL ca=FILE" when it can be used.',
    )
    parser.add_argument("--state", metavar="DIR", required=True,
                        help="directory for its CA and for what arrives; made when missing")
    parser.add_argument("--services", metavar="FILE", default=DEFAULT_SERVICES,
                        help="addresses and keys of the services (default: services/local.json)")
    parser.add_argument("--https-port", metavar="PORT", type=port_number,
                        help="instead of the services file's; 0: any free port")
    parser.add_argument("--http-port", metavar="PORT", type=port_number,
                        help="instead of the services file's; 0: any free port")
    parser.add_argument("--bind", metavar="ADDRESS", default="127.0.0.1", type=address,
                        help="an address of this machine to listen on beside loopback (0.0.0.0: "
                             "all): whoever reaches it can send records and objects here, and "
                             "ask for a configuration")
    parser.add_argument("--open-page", action="store_true",
                        help="let others than this machine use the page and the control "
                             "interface too: no password protects them")
    parser.add_argument("--filter-program", metavar="FILE",
                        help="the build's kivfilter, with which the page tries filters")
    parser.add_argument("--scenario", metavar="FILE",
                        help="a control document (JSON) to follow from the start")
    parser.add_argument("--verbose", action="store_true", help="print a line for every request")
    options = parser.parse_args()
    options.state = os.path.abspath(options.state)
    return options


def told_scenario(path):
    scenario = Scenario()
    if path:
        with open(path, encoding="utf-8") as file:
            scenario.apply(json.load(file))
    return scenario


def listen(options):
    """(the local cloud, its listeners, bound to their ports)"""
    services = Services(options.services)
    scenario = told_scenario(options.scenario)
    store = Store(options.state)
    requests = RequestLog(options.state, scenario.now)
    certificates = Certificates(options.state, services.hosts)
    cloud = LocalCloud(services, scenario, store, requests, certificates, options)
    servers = cloud.listen(
        services.https_port if options.https_port is None else options.https_port,
        services.http_port if options.http_port is None else options.http_port,
    )
    return cloud, servers


def main():
    options = parse_arguments()
    try:
        cloud, servers = listen(options)
    except (OSError, ValueError, ServicesFileError, ControlError, PortTaken) as error:
        print("localcloud: %s" % error, file=sys.stderr)
        return 1
    stop = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: stop.set())
    for server in servers:
        threading.Thread(target=server.serve_forever, args=(0.1,), daemon=True).start()
    print(
        "ready https=%d http=%d control=http://127.0.0.1:%d/control ca=%s"
        % (cloud.ports["https"], cloud.ports["http"], cloud.ports["http"],
           cloud.certificates.ca_file),
        flush=True,
    )
    stop.wait()
    for server in servers:
        server.server_close()
    return 0


if __name__ == "__main__":
    sys.exit(main())

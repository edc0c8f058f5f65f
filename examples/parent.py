#!/usr/bin/env python3
"""Keeps one zkturnd running, as the program that embeds it does.

    parent.py CONFIG.json [PROGRAM]        (PROGRAM is zkturnd unless given)

Starts the daemon, gives it its configuration line and reads its status line; starts it again when
it ends by itself; stops it, and itself, on Ctrl-C or SIGTERM.
"""

import json
import signal
import subprocess
import sys
import time


class StartError(Exception):
    """The daemon answered with its error line: starting it again would bring the same answer."""


class Relay:
    """One run of the daemon."""

    def __init__(self, program, config):
        # Python lets no other child inherit these pipes. That matters: the daemon serves until the
        # last writer of its standard input is gone.
        self.process = subprocess.Popen(
            [program], stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        try:
            self.process.stdin.write(json.dumps(config).encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass  # it ended already; the status line below says so
        line = self.process.stdout.readline()
        status = json.loads(line) if line.endswith(b"\n") else {}
        self.port = status.get("port")
        if status.get("status") == "error":
            self.stop()
            raise StartError(status["message"])

    def stop(self):
        """Ends its standard input. The status with which it ended; 0 after an orderly stop."""
        try:
            self.process.stdin.close()
        except BrokenPipeError:
            pass  # it ended before it had read its configuration
        try:
            return self.process.wait(timeout=5)
        except subprocess.TimeoutExpired:
            self.process.kill()
            return self.process.wait()


class Stop(Exception):
    """Somebody wants this program to end."""


def on_signal(number, frame):
    raise Stop


def main(config_file, program="zkturnd"):
    with open(config_file, encoding="utf-8") as file:
        config = json.load(file)
    relay = None
    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)
    try:
        while True:
            relay = Relay(program, config)
            if relay.port is not None:
                # The port is a new one after every start: clients have to be told.
                print(f"process {relay.process.pid} serves "
                      f"turn:127.0.0.1:{relay.port}?transport=udp", flush=True)
            relay.process.wait()
            print(f"it ended with status {relay.stop()}, starting it again", flush=True)
            relay = None
            time.sleep(1)  # so that one that ends at once does not keep the machine busy
    except Stop:
        status = relay.stop() if relay else 0
        print(f"stopped with status {status}", flush=True)
        return status
    except StartError as error:
        print(f"zkturnd: {error}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: parent.py CONFIG.json [PROGRAM]")
    sys.exit(main(*sys.argv[1:]))

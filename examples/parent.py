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
    """There is no daemon to be had: starting it again would bring the same."""


class Relay:
    """One run of the daemon."""

    def __init__(self, program, config):
        # Python lets no other child inherit these pipes. That matters: the daemon serves until the
        # last writer of its standard input is gone. It gets a session of its own, so that Ctrl-C at
        # a terminal is for this program only, which then stops the daemon in order.
        try:
            self.process = subprocess.Popen(
                [program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, start_new_session=True)
        except OSError as error:
            raise StartError(f"{program} cannot be started: {error.strerror}") from None
        try:
            self.process.stdin.write(json.dumps(config).encode() + b"\n")
            self.process.stdin.flush()
        except BrokenPipeError:
            pass  # it ended already; the status line below says so
        line = self.process.stdout.readline()
        try:
            status = json.loads(line)
            self.port = status["port"] if status["status"] == "ready" else None
            problem = status.get("message")
        except (ValueError, KeyError, TypeError, AttributeError):
            self.port = None
            problem = "it is no zkturnd, or it ended before it was ready"
        if self.port is None:
            self.stop()
            raise StartError(f"{program}: {problem}")

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
    relay = None
    signal.signal(signal.SIGINT, on_signal)
    signal.signal(signal.SIGTERM, on_signal)
    try:
        with open(config_file, encoding="utf-8") as file:
            config = json.load(file)
        while True:
            relay = Relay(program, config)
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
        print(error, file=sys.stderr)
    except OSError as error:
        print(f"{config_file} cannot be read: {error.strerror}", file=sys.stderr)
    except ValueError as error:
        print(f"{config_file} is no JSON: {error}", file=sys.stderr)
    return 1


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit("usage: parent.py CONFIG.json [PROGRAM]")
    sys.exit(main(*sys.argv[1:]))

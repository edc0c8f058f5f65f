"""Runs an example parent as its user would: it serves, starts the daemon again when that is killed,
stops in order, on Ctrl-C as well, and says in one sentence what is wrong.

    parent.py CONFIG DAEMON COMMAND...        (COMMAND starts the parent)
"""

import json
import os
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile

PATIENCE = 20


def expect(condition, what):
    if not condition:
        sys.exit(f"FAILED: {what}")


def next_line(parent):
    ready, _, _ = select.select([parent.stdout], [], [], PATIENCE)
    expect(ready, "the parent said nothing in time")
    return parent.stdout.readline().decode()


def ready_daemon(parent):
    """Process and port of the daemon that the parent's next line tells of."""
    line = next_line(parent)
    found = re.fullmatch(r"process (\d+) serves turn:127\.0\.0\.1:(\d+)\?transport=udp\n", line)
    expect(found, f"no ready daemon but {line!r}")
    return int(found[1]), int(found[2])


def serves(port):
    """Whether a Binding request without credentials gets its error response (RFC 5389)."""
    request = bytes.fromhex("00010000" "2112a442") + os.urandom(12)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(PATIENCE)
        client.sendto(request, ("127.0.0.1", port))
        answer = client.recv(2048)
    return answer[:2] == b"\x01\x11" and answer[4:20] == request[4:]


def is_running(process):
    try:
        os.kill(process, 0)
        return True
    except ProcessLookupError:
        return False


def ends_on_interrupt(command, config, daemon):
    """Ctrl-C at a terminal is for all processes of its foreground group."""
    with subprocess.Popen([*command, config, daemon], stdout=subprocess.PIPE, bufsize=0,
                          start_new_session=True) as parent:
        try:
            started, _ = ready_daemon(parent)
            os.killpg(parent.pid, signal.SIGINT)
            line = next_line(parent)
            expect(line == "stopped with status 0\n", f"no orderly stop on Ctrl-C but {line!r}")
            expect(parent.wait(PATIENCE) == 0, f"Ctrl-C ended it with {parent.returncode}")
            expect(not is_running(started), "the daemon outlived Ctrl-C")
        finally:
            parent.kill()


def refuses(command, config, daemon, piece):
    refused = subprocess.run([*command, config, daemon], capture_output=True, text=True,
                             timeout=PATIENCE, check=False)
    expect(refused.returncode == 1 and piece in refused.stderr and
           refused.stderr.count("\n") == 1,
           f"{daemon} with {config}: status {refused.returncode}, {refused.stderr!r}")


def main(config, daemon, command):
    # Unbuffered, because select() does not see what a buffer has taken already.
    with subprocess.Popen([*command, config, daemon], stdout=subprocess.PIPE, bufsize=0) as parent:
        try:
            first, port = ready_daemon(parent)
            expect(serves(port), "the daemon does not serve")
            os.kill(first, signal.SIGKILL)
            line = next_line(parent)
            expect("starting it again" in line, f"the parent did not see the end, but {line!r}")
            second, port = ready_daemon(parent)
            expect(second != first and serves(port), "the second daemon does not serve")
            parent.send_signal(signal.SIGTERM)
            line = next_line(parent)
            expect(line == "stopped with status 0\n", f"no orderly stop but {line!r}")
            expect(parent.wait(PATIENCE) == 0, f"the parent ended with {parent.returncode}")
            expect(not is_running(second), "the daemon outlived its parent")
        finally:
            parent.kill()

    ends_on_interrupt(command, config, daemon)
    with tempfile.NamedTemporaryFile("w", suffix=".json") as wrong:
        json.dump({"proxy": {"host": "127.0.0.1", "port": 1080}}, wrong)
        wrong.flush()
        refuses(command, wrong.name, daemon, "missing key")
    refuses(command, "/nonexistent.json", daemon, "/nonexistent.json")
    refuses(command, config, "/nonexistent", "/nonexistent cannot be started")
    refuses(command, config, "/bin/true", "no zkturnd")
    refuses(command, config, "/bin/date", "no zkturnd")
    print("served, started again, stopped, said what was wrong")


main(sys.argv[1], sys.argv[2], sys.argv[3:])

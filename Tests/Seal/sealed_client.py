"""A program that knows nothing of proxies, and says how the network looks to it."""
import socket
import sys

FAR = "203.0.113.1"


def attempt(what):
    try:
        return what()
    except OSError as error:
        return error.strerror


def echo():
    with socket.create_connection((FAR, 7000), 10) as stream:
        stream.sendall(b"hello")
        stream.shutdown(socket.SHUT_WR)
        return stream.recv(100).decode()


def connect(address, port):
    with socket.create_connection((address, port), 10):
        return "connected"


def slowly(port=7001):
    with socket.create_connection((FAR, port), 10) as stream:
        total = 0
        while octets := stream.recv(4096):
            total += len(octets)
        return str(total)


def resolve(name):
    return ",".join(sorted({found[4][0] for found in socket.getaddrinfo(name, 80)}))


def many():
    good = 0
    for _ in range(400):
        good += attempt(echo) == "hello"
    return str(good)


STEPS = {
    "echo": echo,
    "refused": lambda: connect(FAR, 9),
    "unreachable": lambda: connect("192.0.2.1", 80),
    "home": lambda: connect("10.1.0.1", 80),
    "own router": lambda: connect("192.168.1.1", 80),
    "slow": slowly,
    "name": lambda: resolve("host.example"),
    "long name": lambda: resolve("long.example"),
    "no name": lambda: resolve("nobody.example"),
    "many": many,
}
for step in sys.argv[1:] or STEPS:
    print(f"{step}: {attempt(STEPS[step])}", flush=True)

"""A program that knows nothing of proxies, and says how the network looks to it."""
import os
import socket
import sys
import time

FAR = "203.0.113.1"


def attempt(what):
    try:
        return what()
    except OSError as error:
        return error.strerror


def echo():
    with socket.create_connection((FAR, 7000), 3) as stream:
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


def last_words():
    stream = socket.create_connection((FAR, 7002), 10)
    stream.sendall(bytes(3000000))
    question = b"\0\1\0\0\x21\x12\xa4\x42" + bytes(12)  # a Binding request
    socket.socket(type=socket.SOCK_DGRAM).sendto(question, (FAR, 3478))
    os._exit(0)


def thousands():
    begun = []
    for _ in range(3000):
        one = socket.socket()
        one.setblocking(False)
        one.connect_ex((FAR, 7000))
        begun.append(one)
    time.sleep(2)
    for one in begun:
        one.close()
    time.sleep(1)
    return "works" if echo() == "hello" else "is worn out"


def heard(question):
    """What comes until a second of silence."""
    udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    udp.settimeout(1)
    udp.sendto(question, ("198.51.100.11", 7003))
    while isinstance(one := attempt(lambda: udp.recvfrom(2000)), tuple):
        yield f"{one[0].decode()} {one[1][0]}"


def chatter():
    """Says something every moment, by TCP, a datagram and a name, and counts what works."""
    udp = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    counts = {True: 0, False: 0}
    while True:
        attempt(lambda: udp.sendto(b"x", ("198.51.100.11", 7000)))
        works = attempt(echo) == "hello" and attempt(lambda: resolve("host.example")) == FAR
        counts[works] += 1
        with open("/tmp/chat.new", "w") as file:
            file.write(f"{counts[True]} {counts[False]}")
        os.rename("/tmp/chat.new", "/tmp/chat")
        time.sleep(0.05)


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
    "datagrams": lambda: ", ".join(sorted(heard(b"x"))),
    "flood": lambda: str(sum(1 for _ in heard(b"flood"))),
    "last words": last_words,
    "thousands": thousands,
    "chatter": chatter,
}
for step in sys.argv[1:]:
    print(f"{step}: {attempt(STEPS[step])}", flush=True)

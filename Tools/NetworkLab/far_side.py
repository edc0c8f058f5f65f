"""The internet of the lab: a name server over TCP, servers that say everything back, and pages."""
import collections
import os
import socket
import struct
import sys
import threading
import time

ADDRESS = sys.argv[1]


def exactly(stream, count):
    octets = b""
    while len(octets) < count:
        more = stream.recv(count - len(octets))
        if not more:
            raise EOFError
        octets += more
    return octets


def answer(question):
    end = question.index(b"\0", 12) + 5
    kind = struct.unpack("!H", question[end - 4 : end - 2])[0]
    name = question[13 : 13 + question[12]]
    count = 200 if name == b"long" else 1 if name != b"nobody" and kind == 1 else 0
    record = b"\xc0\x0c\0\1\0\1\0\0\0\x3c\0\4" + socket.inet_aton(ADDRESS)
    code = 3 if name == b"nobody" else 0
    head = question[:2] + bytes([0x81, 0x80 | code]) + struct.pack("!HHHH", 1, count, 0, 0)
    return head + question[12:end] + record * count


def serve_names(stream):
    while True:
        reply = answer(exactly(stream, struct.unpack("!H", exactly(stream, 2))[0]))
        stream.sendall(struct.pack("!H", len(reply)) + reply)


def serve_echo(stream):
    octets = b""  # said back when the other has said all
    while more := stream.recv(65536):
        octets += more
    stream.sendall(octets)
    stream.close()


def serve_bulk(stream):
    chunk = bytes(1 << 16)
    for _ in range(96):
        stream.sendall(chunk)
    stream.close()


def serve_sink(stream):
    total = 0
    while more := stream.recv(65536):
        total += len(more)
    with open("/tmp/taken", "w") as file:
        file.write(str(total))


PAGE = b"""<!doctype html><title>wants out</title><script>
const server = location.hostname;
const wait = (ms) => new Promise((done) => setTimeout(done, ms));
async function candidates(frame) {
  const peer = new frame.RTCPeerConnection({iceServers: [
    {urls: [`stun:${server}:3478`, 'stun:198.51.100.11:3479', 'stun:10.1.0.1:3478', 'stun:host.example:3478']},
    {urls: `turn:198.51.100.12:3478?transport=tcp`, username: 'u', credential: 'p'}]});
  const found = [];
  peer.onicecandidate = (event) => event.candidate && found.push(event.candidate.candidate);
  peer.createDataChannel('x');
  await peer.setLocalDescription(await peer.createOffer());
  await wait(3000);
  return found;
}
(async () => {
  const found = await candidates(window);
  const frame = document.body.appendChild(document.createElement('iframe'));
  found.push(...await candidates(frame.contentWindow));
  for (const rel of ['dns-prefetch', 'preconnect', 'prefetch']) {
    const link = document.head.appendChild(document.createElement('link'));
    link.rel = rel;
    link.href = 'http://198.51.100.13:8001/';
  }
  try { await Promise.race([new WebTransport(`https://${server}:4433/`).ready, wait(2000)]); } catch {}
  for (const url of ['http://10.1.0.1/', 'http://192.168.1.1/', 'http://host.example:8000/seen']) {
    await Promise.race([fetch(url, {mode: 'no-cors'}).catch(() => {}), wait(2000)]);
  }
  await fetch('/report', {method: 'POST', body: found.join('\\n')});
})();
</script>"""


mail = collections.defaultdict(bytes)  # what those who call each other have said, by whom it is for


def respond(method, path, body):
    verb, _, whose = path[1:].partition("/")
    if method == "GET":
        return open("/tmp/call.js", "rb").read() if verb == "call.js" else b"<!doctype html><script src=call.js></script>" if verb == "call" else PAGE
    if verb == "say":
        mail[whose] += body
    elif verb == "hear":
        return mail.pop(whose, b"")
    else:
        with open("/tmp/new", "wb") as file:
            file.write(body)
        os.rename("/tmp/new", "/tmp/report" + whose)
    return b""


def serve_page(stream):
    head = b""
    while b"\r\n\r\n" not in head:
        head += exactly(stream, 1)
    length = [line for line in head.lower().split(b"\r\n") if line.startswith(b"content-length:")]
    body = exactly(stream, int(length[0].split(b":")[1])) if length else b""
    answer = respond(*head.decode().split()[:2], body)
    head = f"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: {len(answer)}\r\n\r\n"
    stream.sendall(head.encode() + answer)
    stream.close()


def answer_datagrams():
    """The peer who was asked answers, for two seconds all he can if he was asked for that; then a
    stranger does who was not."""
    peer, stranger = (socket.socket(socket.AF_INET, socket.SOCK_DGRAM) for _ in range(2))
    peer.bind(("198.51.100.11", 7003))
    stranger.bind(("198.51.100.13", 0))
    while True:
        question, asker = peer.recvfrom(100)
        peer.sendto(b"peer", asker)
        end = time.monotonic() + 2
        while question == b"flood" and time.monotonic() < end:
            peer.sendto(bytes(1200), asker)
        stranger.sendto(b"stranger", asker)


def listen(port, service):
    ear = socket.create_server((ADDRESS, port), backlog=1000)

    def served(stream):
        try:
            service(stream)
        except (OSError, EOFError):
            pass

    while True:
        threading.Thread(target=served, args=(ear.accept()[0],), daemon=True).start()


for port, service in ((53, serve_names), (7000, serve_echo), (7001, serve_bulk), (7002, serve_sink), (8000, serve_page)):
    threading.Thread(target=listen, args=(port, service), daemon=True).start()
threading.Thread(target=answer_datagrams, daemon=True).start()
print("listens", flush=True)
sys.stdin.read()
os._exit(0)

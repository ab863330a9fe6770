#!/usr/bin/env python3
"""The listings of docs/protocol.md happen as they stand there, where "..." is whatever the system has.

usage: protocol.py PAGE         beside pages.sh's two systems, in their folder
       protocol.py --between PATH OTHER LOG     passes a service's session on to the router's socket, and writes it down
"""

import json
import os
import re
import selectors
import socket
import sys
import textwrap
import time

PATIENCE = 60  # seconds


def connected(path):
    sock = socket.socket(socket.AF_UNIX)
    sock.settimeout(PATIENCE)
    sock.connect(path)
    return sock


# --- Between a service and the router --------------------------------------------------------------------------------


def pass_on(service, router, log):
    """Each line as it comes: '> ' from the service, '< ' to it."""
    rest = {service: b"", router: b""}
    with selectors.DefaultSelector() as selector:
        selector.register(service, selectors.EVENT_READ, ("> ", router))
        selector.register(router, selectors.EVENT_READ, ("< ", service))
        while True:
            for key, _ in selector.select():
                sign, other = key.data
                data = key.fileobj.recv(65536)
                if not data:
                    return
                *lines, rest[key.fileobj] = (rest[key.fileobj] + data).split(b"\n")
                log.write("".join(sign + line.decode() + "\n" for line in lines))
                log.flush()
                other.sendall(data)


def between(path, other, log_path):
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(path)
    listener.listen()
    with open(log_path, "w", encoding="ascii") as log:
        while True:
            service, _ = listener.accept()
            with service, connected(other) as router:
                pass_on(service, router, log)


# --- What the page says ----------------------------------------------------------------------------------------------


def pattern_of(text, chosen='"transaction_id":91'):
    """'...' is anything; a number that its sender chooses is the same one wherever it stands."""
    pattern = re.escape(text).replace(re.escape("..."), ".*")
    name = re.escape(chosen.rstrip("0123456789"))
    pattern = pattern.replace(re.escape(chosen), name + r"(?P<number>\d+)", 1)
    return re.compile(pattern.replace(re.escape(chosen), name + "(?P=number)"), re.S)


def fail(block, got):
    sys.exit(f"this of the page\n{block}\nis otherwise:\n{got[:1000]}")


def is_there(block, pattern, get):
    """Asks again until what is got is the block, for the bus drops what is published before its ends are connected."""
    end = time.monotonic() + PATIENCE
    while not pattern.fullmatch(got := get()):
        if time.monotonic() > end:
            fail(block, got)
        time.sleep(0.05)


def one_shot(path, request):
    with connected(path) as sock:
        sock.sendall(request.encode())
        return b"".join(iter(lambda: sock.recv(65536), b"")).decode()


def check_exchange(block):
    """One whole exchange: what the client and the router write to each other, and between them the frames."""
    request = block.split("\n")[0].removeprefix("client  ")

    def exchange():
        answer = one_shot("onbus/router.sock", request)
        with open("frames", encoding="ascii") as file:
            frames = [line.rstrip("\n") for line in file if '"ports.Get"' in line]
        return "\n".join([f"client  {request}", *map("{}  {}".format, ("router", "portsd"), frames[-2:]), f"router  {answer}"])

    is_there(block, pattern_of(block), exchange)


def check_session(block):
    """A client's session. The answers may come in any order."""
    sent = re.findall(r"(?m)^> (.*)", block)
    wanted = re.findall(r"(?m)^< (.*)", block)
    with connected("session.sock") as sock:
        sock.sendall("".join(line + "\n" for line in sent).encode())
        lines = sock.makefile(encoding="utf-8")
        got = [lines.readline().rstrip("\n") for _ in wanted]
    for line in wanted:
        if not any(pattern_of(line).fullmatch(one) for one in got):
            fail(line, "\n".join(got))


def check_service(block):
    """A service's session: its lines stand one after the other in what passed between portsd and the router."""
    here = {"ipc:///run/tavrix/bus/": f"ipc://{os.getcwd()}/bus/",
            '"pid":4711,"uid":1000,"gid":1000': f'"pid":{os.getpid()},"uid":{os.getuid()},"gid":{os.getgid()}'}
    for there, own in here.items():
        block = block.replace(there, own)
    count = block.count("\n") + 1
    number = re.search(r'"id":\d+', block)
    pattern = pattern_of(block, number.group()) if number else pattern_of(block)

    def passage():
        request = {"method": "ports.Get", "transaction_id": 1, "params": {"port_id": "c1-1"}, "id": 1}
        one_shot("router.sock", json.dumps({"jsonrpc": "2.0", **request}, separators=(",", ":")))
        with open("passed", encoding="ascii") as file:
            lines = file.read().splitlines()
        passages = ["\n".join(lines[at:at + count]) for at in range(len(lines) - count + 1)]
        return next(filter(pattern.fullmatch, passages), "\n".join(lines))

    is_there(block, pattern, passage)


def check_messages(page):
    """The router's answers have the catalogue's words."""
    rows = re.findall(r"(?m)^\| (-32\d+) \| ([^|]+) \|", page)
    answer = one_shot("router.sock", '{"jsonrpc":"2.0","method":"rpc.discover","id":1}')
    for code, words in rows:
        if not re.search(rf'"code":{code},"message":"{pattern_of(words).pattern}"', answer):
            fail(f"{code} {words}", answer[answer.find(f'"{code}"'):])
    return len(rows)


KINDS = [  # how a listing begins, its check, and how many there are at least
    (r"client  ", check_exchange, 1),
    (r'> .*"method":"router\.(Register|Describe)"|< ', check_service, 3),
    (r"> ", check_session, 2),
]


def check_page(path):
    with open(path, encoding="utf-8") as file:
        page = file.read()
    counts = [0] * len(KINDS)
    for block in re.findall(r"(?m)(?:^    .*(?:\n|$))+", page):
        # A line that begins with a blank goes on where the one before it ends.
        text = re.sub(r"\n +", "", textwrap.dedent(block).strip())
        kind = next((at for at, (begin, _, _) in enumerate(KINDS) if re.match(begin, text)), None)
        if kind is None:
            sys.exit(f"{path} has a listing of an unknown kind, which nothing checks:\n{text}")
        KINDS[kind][1](text)
        counts[kind] += 1
    if any(count < least for count, (_, _, least) in zip(counts, KINDS)) or check_messages(page) < 5:
        sys.exit(f"{path} has lost listings: {counts}")


if __name__ == "__main__":
    if sys.argv[1] == "--between":
        between(*sys.argv[2:])
    else:
        check_page(sys.argv[1])

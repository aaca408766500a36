#!/usr/bin/env python3
"""A remote side in few lines: lends one device of a USB/IP server to a host.

    xj-usbip-host --exec "examples/usbip-bridge.py SERVER[:PORT] BUSID"

Its standard input and output are the channel, byte by byte as docs/protocol.md tells it.
"""
import os
import socket
import struct
import sys
import threading

CHANNEL, VERSION_REQ, VERSION_RSP, MAP, UNMAP, FORWARD = 0x0B, 1, 2, 3, 4, 5
CMD_SUBMIT, CMD_UNLINK, RET_SUBMIT, RET_UNLINK = 1, 2, 3, 4
DEVICE = 1  # our id for it
writing = threading.Lock()  # a message is written whole before the next
reads, unlinks = set(), {}  # commands under way: IN submits; unlinks, with what they are to unlink


def take(stream, size):
    data = stream.read(size)
    if len(data) < size:
        raise EOFError
    return data


def send(kind, body):
    message = struct.pack("<IB3xIB3x", len(body) + 8, CHANNEL, len(body), kind) + body
    with writing:
        while message:
            message = message[os.write(1, message):]


def receive():
    (length,) = struct.unpack("<I4x", take(sys.stdin.buffer, 8))
    message = take(sys.stdin.buffer, length)
    return message[4], message[8:]


def import_device(server, replies, busid):
    server.sendall(struct.pack(">HHI32s", 0x0111, 0x8003, 0, busid.encode()))
    (status,) = struct.unpack(">4xI", take(replies, 8))
    if status:
        sys.exit(f"the server does not lend {busid}: status {status}")
    return struct.unpack_from(">IIIHH", take(replies, 312), 288)  # bus, device, speed, vid, pid


def pass_replies(replies):
    """From the server, PDU by PDU; its end is the end of the device."""
    try:
        while True:
            header = take(replies, 48)
            command, number, status, length, packets = struct.unpack_from(">II12xII4xI", header)
            size = 0
            if command == RET_SUBMIT:
                size = 16 * packets if packets != 0xFFFFFFFF else 0
                if number in reads:  # only the answer to an IN command has data
                    reads.remove(number)
                    size += length
            elif unlinked := unlinks.pop(number, None):
                if status:  # then it gets no answer of its own any more
                    reads.discard(unlinked)
            pdu = header + take(replies, size)
            send(FORWARD, struct.pack("<III", DEVICE, len(pdu), 0) + pdu + bytes(4))
    except (EOFError, OSError):
        send(UNMAP, struct.pack("<I", DEVICE))


def main():
    name, _, port = sys.argv[1].partition(":")
    server = socket.create_connection((name, int(port or 3240)))
    replies = server.makefile("rb")
    bus, number, speed, vid, pid = import_device(server, replies, sys.argv[2])
    send(VERSION_REQ, bytes(4))  # no flag: what comes to us is not compressed
    kind, body = receive()
    if (kind, body) != (VERSION_RSP, struct.pack("<I", 3)):
        sys.exit("the host speaks another version of the protocol")
    send(MAP, struct.pack("<I256s544xIIIHH8x", DEVICE, f"{name}/{sys.argv[2]}".encode()[:255],
                          bus, number, speed, vid, pid))
    threading.Thread(target=pass_replies, args=(replies,), daemon=True).start()
    while True:
        kind, body = receive()
        if kind == UNMAP:  # it has ended at the host, which keeps the id until we let go of it
            return send(UNMAP, struct.pack("<I", DEVICE))
        _, size, _ = struct.unpack_from("<III", body)
        pdu = body[12:12 + size]
        command, seqnum, _, direction, _, target = struct.unpack_from(">6I", pdu)
        if command == CMD_UNLINK:
            unlinks[seqnum] = target
        elif direction == 1:
            reads.add(seqnum)
        server.sendall(pdu)


if __name__ == "__main__":
    try:
        main()
    except (EOFError, BrokenPipeError):
        pass  # the host has gone, or the server, of which pass_replies tells

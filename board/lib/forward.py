#!/usr/bin/env python3
"""Makes a TCP port of a board's loopback reachable on this machine's loopback, until the board ends.

Usage: forward.py INIT PORT LOCAL
INIT   process id of the board's first process
PORT   port on the board
LOCAL  port of 127.0.0.1 here; 0, or one that is taken: a free one
Prints the local port when it listens.
"""

import asyncio
import ctypes
import os
import signal
import socket
import sys

CLONE_NEWNET = 0x40000000
PIECE = 65536
MOST_CONNECTIONS = 64


def listen(port: int) -> socket.socket:
    for candidate in (port, 0):
        listener = socket.socket()
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        try:
            listener.bind(("127.0.0.1", candidate))
            return listener
        except OSError:
            listener.close()
    raise SystemExit("board: no port of this machine's loopback is free")


def enter_network(init: int) -> None:
    """Sockets that are made from now on are the board's."""
    with open(f"/proc/{init}/ns/net") as network:
        if ctypes.CDLL(None, use_errno=True).setns(network.fileno(), CLONE_NEWNET) != 0:
            raise OSError(ctypes.get_errno(), "cannot enter the board's network")


async def copy(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
    try:
        while piece := await reader.read(PIECE):
            writer.write(piece)
            await writer.drain()
        writer.write_eof()
    except OSError:
        writer.close()


async def forward(init: int, port: int, local: int) -> None:
    board = os.pidfd_open(init)
    listener = listen(local)
    enter_network(init)
    places = asyncio.Semaphore(MOST_CONNECTIONS)
    connections = set()  # the event loop itself holds tasks only weakly

    async def serve(reader: asyncio.StreamReader, writer: asyncio.StreamWriter) -> None:
        task = asyncio.current_task()
        connections.add(task)
        task.add_done_callback(connections.discard)
        async with places:
            try:
                there, back = await asyncio.open_connection("127.0.0.1", port)
                await asyncio.gather(copy(reader, back), copy(there, writer))
                back.close()
            except OSError:
                pass
            writer.close()

    server = await asyncio.start_server(serve, sock=listener)
    print(listener.getsockname()[1], flush=True)
    ended = asyncio.Event()
    loop = asyncio.get_running_loop()
    loop.add_reader(board, ended.set)
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        loop.add_signal_handler(number, ended.set)
    await ended.wait()
    server.close()
    os._exit(0)  # connections that are open end with the process


if __name__ == "__main__":
    asyncio.run(forward(int(sys.argv[1]), int(sys.argv[2]), int(sys.argv[3])))

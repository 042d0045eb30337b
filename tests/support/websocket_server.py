#!/usr/bin/python3
"""A websocket server for tests, on a loopback port that it prints. Does not outlive its parent.

The path of a connection says what becomes of it; its end is printed as "PATH STATUS REASON MESSAGE...".
usage: websocket_server.py [CERTIFICATES KEY]
"""
import asyncio
import http
import os
import ssl
import sys

import websockets


async def answer(path, headers):
    return {"/moved": (http.HTTPStatus.FOUND, {"Location": "/hello/moved"}, b""),
            "/wordy": (http.HTTPStatus.OK, {"Words": "x" * 5000}, b""),
            "/refused": (http.HTTPStatus.FORBIDDEN, {}, b"")}.get(path)


async def talk(socket, received, kind, argument):
    if kind == "headers":
        await socket.send(",".join(value for name, value in socket.request_headers.raw_items() if name[0] in "Xx"))
    elif kind == "hello":
        for text in argument.split(","):
            await socket.send(text)
    elif kind == "close":
        await socket.close(int(argument), "because")
    elif kind == "host":
        await socket.close(1000, socket.request_headers["Host"])
    elif kind == "reset":
        socket.transport.abort()
    elif kind == "big":
        await socket.send("x" * int(argument))
        await socket.send(b"\0\1\2")
    elif kind == "ping":
        await (await socket.ping())
        await socket.pong()
    elif kind == "count":
        for number in range(int(argument)):
            await socket.send(str(number))
        for number in range(int(argument)):
            assert await socket.recv() == str(number)
        await socket.close(1000, socket.subprotocol)
    async for message in socket:
        received.append(message)


async def handle(socket, path):
    received = []
    await asyncio.gather(talk(socket, received, *path[1:].split("/")), return_exceptions=True)
    await socket.wait_closed()
    print(path, socket.close_code, socket.close_reason, *received, flush=True)


async def main(parent):
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER) if len(sys.argv) > 1 else None
    if tls:
        tls.load_cert_chain(*sys.argv[1:])
    server = await websockets.serve(handle, "127.0.0.1", 0, ssl=tls, process_request=answer, subprotocols=["camera"],
                                    max_queue=None, ping_interval=None, compression=None)
    print(server.sockets[0].getsockname()[1], flush=True)
    while os.getppid() == parent:
        await asyncio.sleep(1)


asyncio.run(main(os.getppid()))
